#include "surface/words/PairWords.h"

#include "text/Machine.h"

using namespace Qt::StringLiterals;

namespace PairWords {

Page page(
    PopoverPairing::Phase phase, PopoverPairing::Failure failure, const QString& detail, bool hasCode, bool localOnly)
{
    using Phase = PopoverPairing::Phase;
    Page words;
    switch (phase) {
    case Phase::Starting:
        words.lead = u"Making a pairing code…"_s;
        break;
    case Phase::NeedsAccess:
        words.lead = u"Turn on phone access first."_s;
        words.warns = true;
        words.detail = u"Phones reach %1 through Tailscale, so the code needs %2 Tailscale address. Setup turns it on "
                       u"in a minute."_s.arg(machine::thisMachine(), machine::thisMachines());
        break;
    case Phase::Showing:
        words.lead = u"Waiting for your phone…"_s;
        words.detail = u"Point your phone’s camera at the code; it opens Tidewatch and pairs. Each code works once "
                       u"and lasts 10 minutes, and there’s a new one every time you open this, so you can pair more "
                       u"than one device."_s;
        words.showsCode = hasCode;
        break;
    case Phase::Failed:
        words.lead = failure == PopoverPairing::Failure::StaleAddress ? staleAddress() : detail;
        words.warns = true;
        words.showsCode = hasCode;
        break;
    case Phase::Paired:
        words.lead = detail;
        words.detail = u"It can see your sessions and answer approvals now."_s;
        words.offersAnother = true;
        break;
    }
    if (words.showsCode && localOnly) {
        words.wifi = u"Works on this Wi\u2011Fi. Sign in to Tailscale to reach %1 from anywhere."_s.arg(
            machine::thisMachine());
    }
    return words;
}

QString staleAddress()
{
    return u"Tailscale isn’t answering right now, so the code can’t carry %1 address. Trying again…"_s.arg(
        machine::thisMachines());
}

QString pairAnother()
{
    return u"Pair another phone"_s;
}

QString pairAnotherHelp()
{
    return u"Show a pairing code. Each code works once, and every time you get a new one, so you can pair more than "
           u"one device."_s;
}

QString copyLink()
{
    return u"Copy link"_s;
}

QString copyLinkHelp()
{
    return u"For the Paste link field in the app"_s;
}

QString downloadLine()
{
    return u"No app on it yet? Get Tidewatch for Android"_s;
}

QString downloadAddress(const LocalStatus& status)
{
    // Only the service knows whether it has the app to hand out.
    return status.downloadUrl.value_or(QString());
}

QString back()
{
    return u"Back"_s;
}

QString settings()
{
    return u"Settings"_s;
}

QString settingsHelp()
{
    return u"Shows connection settings"_s;
}

} // namespace PairWords
