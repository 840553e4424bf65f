#include "surface/words/ConnectionPill.h"

#include "model/TailscaleAction.h"
#include "surface/words/NoticeWords.h"
#include "text/Machine.h"
#include "text/TimeWords.h"

namespace ConnectionPill {

namespace {

using Route = Look::Route;

Look with(Ink dot, const QString& word, const QString& help, Route route)
{
    Look look;
    look.dot = dot;
    look.word = word;
    look.help = help;
    look.route = route;
    return look;
}

} // namespace

qint64 connectedOthers(const LocalStatus& status, bool statusCountsFeed)
{
    return status.connectedClients.value_or(0) - (statusCountsFeed ? 1 : 0);
}

QString connectedSentence(qint64 others)
{
    if (others <= 0)
        return QStringLiteral("No phone is connected right now.");
    if (others == 1)
        return QStringLiteral("1 connected right now.");
    return QStringLiteral("%1 connected right now.").arg(others);
}

Look look(const Inputs& inputs, const QDateTime& now)
{
    if (!inputs.firstPollDone)
        return with(
            Ink::Muted, QStringLiteral("checking"), QStringLiteral("Checking the background service"), Route::None);
    if (!inputs.alive)
        return with(Ink::Red, QStringLiteral("service off"), QStringLiteral("The background service isn’t answering"),
            Route::None);
    if (!inputs.status)
        return with(
            Ink::Muted, QStringLiteral("connecting"), QStringLiteral("Asking the background service"), Route::None);

    const LocalStatus& status = *inputs.status;
    const qint64 others = connectedOthers(status, inputs.statusCountsFeed);
    const QString count = connectedSentence(others);
    const TailscaleAction action = TailscaleAction::decide(status);
    Look result;
    using Kind = TailscaleAction::Kind;
    const std::optional<FlexDate> expiry = status.tailscale ? status.tailscale->keyExpiry : std::nullopt;
    if (action.kind == Kind::Ready && expiry && keyExpiryCounts(*expiry, now)) {
        const bool expired = TimeWords::secondsFrom(now, *expiry) <= 0;
        result = with(Ink::Amber, expired ? QStringLiteral("key expired") : QStringLiteral("tailnet"),
            machine::ThisMachine()
                + (expired ? QStringLiteral("’s Tailscale key has expired. Phone access is at ")
                           : QStringLiteral("’s Tailscale key expires soon. Phone access is at "))
                + action.url + QStringLiteral(". ") + count,
            Route::Tailnet);
    } else if (action.kind == Kind::Ready) {
        result = with(Ink::Green, QStringLiteral("tailnet"),
            QStringLiteral("Phone access is on at ") + action.url + QStringLiteral(". ") + count, Route::Tailnet);
    } else if (action.kind == Kind::ReadyBuiltIn) {
        result = with(Ink::Green, QStringLiteral("tailnet"),
            QStringLiteral("Tidewatch’s built-in Tailscale serves phone access at ") + action.url + QStringLiteral(". ")
                + count,
            Route::Tailnet);
    } else if (action.kind == Kind::BuiltInWaiting) {
        result = with(Ink::Muted, QStringLiteral("Tailscale starting"),
            QStringLiteral("Tidewatch’s built-in Tailscale is starting"), Route::None);
    } else if (action.kind == Kind::SignInBuiltIn) {
        result = with(Ink::Amber, QStringLiteral("sign in to Tailscale"),
            QStringLiteral("Tidewatch’s built-in Tailscale needs your sign-in: open Setup for the code"), Route::None);
    } else if (hasLanRoute(status)) {
        result = with(Ink::DimGreen, QStringLiteral("Wi\u2011Fi"),
            QStringLiteral("Phones on this Wi\u2011Fi reach %1. Turn on Tailscale in Setup to reach it from "
                           "anywhere. ")
                    .arg(machine::thisMachine())
                + count,
            Route::Lan);
    } else if (action.kind == Kind::OpenApp) {
        result = with(Ink::Amber,
            action.loggedOut ? QStringLiteral("Tailscale signed out") : QStringLiteral("Tailscale off"),
            QStringLiteral("Phones reach %1 through Tailscale").arg(machine::thisMachine()), Route::None);
    } else if (action.kind == Kind::Install) {
        result = with(Ink::Amber, QStringLiteral("no Tailscale"),
            QStringLiteral("Tailscale isn’t set up, so phones can’t reach %1").arg(machine::thisMachine()),
            Route::None);
    } else {
        result = with(
            Ink::Amber, QStringLiteral("phone access off"), QStringLiteral("Phone access isn’t on yet"), Route::None);
    }

    for (const Device& device : status.devices.items) {
        const bool lens = device.client == QStringLiteral("lens");
        if (!lens)
            ++result.phones;
        if (lens || (device.glasses && device.glasses->since && !device.glasses->removedAt))
            result.glasses = true;
    }
    result.glow = result.dot == Ink::Green && others >= 1;
    return result;
}

} // namespace ConnectionPill
