#include "surface/words/PhoneAccessWords.h"

#include "model/TailscaleAction.h"
#include "surface/words/NoticeWords.h"
#include "text/Machine.h"
#include "text/TimeWords.h"

using namespace Qt::StringLiterals;

namespace PhoneAccessWords {

namespace {

bool builtInMode(const LocalStatus& status)
{
    return status.tsnet && status.tsnet->mode == u"builtIn"_s;
}

QStringList builtInLines(const TailscaleAction& action)
{
    QStringList lines{u"Tidewatch’s own Tailscale node. Only devices on your tailnet can open it."_s};
    const bool hasNode = action.node && !action.node->isEmpty();
    if (action.account && !action.account->isEmpty() && hasNode) {
        lines << u"Signed in to Tailscale as %1. %2 on the tailnet: %3"_s.arg(
            *action.account, machine::ThisMachine(), *action.node);
    } else if (hasNode) {
        lines << u"%1 on the tailnet: %2"_s.arg(machine::ThisMachine(), *action.node);
    }
    if (action.pinned)
        lines << pinnedLine();
    return lines;
}

} // namespace

Row row(const Inputs& in)
{
    using Kind = TailscaleAction::Kind;
    Row row;
    if (!in.serviceUp) {
        row.lines << u"The background service isn’t running, so phones can’t reach %1."_s.arg(machine::thisMachine());
        row.ink = Ink::Red;
        return row;
    }
    if (!in.status) {
        row.lines << u"Asking Tailscale…"_s;
        return row;
    }
    const TailscaleAction action = TailscaleAction::decide(*in.status);
    row.ink = action.isReady() ? Ink::Secondary : Ink::Amber;
    switch (action.kind) {
    case Kind::Ready:
        row.url = action.url;
        row.lines << u"Only devices signed in to your Tailscale account can open it."_s;
        break;
    case Kind::ReadyBuiltIn:
        row.url = action.url;
        row.lines << builtInLines(action);
        break;
    case Kind::OpenApp:
        row.lines << (action.loggedOut ? u"Tailscale is signed out. Sign in with the same account as your phone."_s
                                       : u"Tailscale isn’t running."_s);
        break;
    case Kind::BuiltInWaiting:
        row.lines << u"Tidewatch’s built-in Tailscale is starting."_s;
        row.ink = Ink::Muted;
        break;
    case Kind::SignInBuiltIn:
        row.lines << u"Tidewatch’s built-in Tailscale needs your sign-in: open Setup for the code."_s;
        break;
    case Kind::Install:
        row.lines << u"Tailscale isn’t on %1 yet. Phones reach Tidewatch through it."_s.arg(machine::thisMachine());
        break;
    case Kind::EnableHTTPS:
        row.lines << u"Your tailnet needs HTTPS certificates turned on, so phones get a trusted connection."_s;
        break;
    case Kind::TurnOnServe:
        row.lines << u"Tailscale is ready; phone access just needs turning on."_s;
        break;
    }
    return row;
}

std::optional<QString> wifiLine(const LocalStatus& status)
{
    if (TailscaleAction::decide(status).isReady() || !hasLanRoute(status))
        return std::nullopt;
    return u"Phones on this Wi\u2011Fi still pair and connect."_s;
}

std::optional<KeyWarning> keyWarning(const LocalStatus& status, const QDateTime& now)
{
    // The built-in node renews its own key; only the Tailscale app's runs out.
    if (builtInMode(status) || !status.tailscale || !status.tailscale->keyExpiry)
        return std::nullopt;
    const FlexDate& expiry = *status.tailscale->keyExpiry;
    if (!keyExpiryCounts(expiry, now))
        return std::nullopt;
    const double left = TimeWords::secondsFrom(now, expiry);
    KeyWarning warning;
    warning.text = left > 0 ? u"Tailscale key expires in "_s + TimeWords::compactDuration(left)
                            : machine::ThisMachine() + u"’s Tailscale key has expired"_s;
    warning.action = u"Fix"_s;
    warning.line = u"Turn key expiry off for %1."_s.arg(machine::thisMachine());
    warning.help
        = u"In the admin console, open %1 ⋯ menu and choose Disable key expiry."_s.arg(machine::thisMachines());
    return warning;
}

std::optional<Choice> routeChoice(const LocalStatus& status)
{
    const bool nodeAvailable = status.tsnet && status.tsnet->available.value_or(false);
    const bool appInstalled = status.tailscale && status.tailscale->installed.value_or(true);
    if (!nodeAvailable || !appInstalled)
        return std::nullopt;
    if (builtInMode(status)) {
        return Choice{u"Use the Tailscale app instead"_s,
            u"Hand phone access to the Tailscale app on %1; Setup then turns its phone access on. Paired phones "
            "follow by themselves."_s.arg(machine::thisMachine()),
            false};
    }
    return Choice{u"Use Tidewatch’s own Tailscale"_s,
        u"Tidewatch runs its own Tailscale node: no Tailscale app needed. You sign it in once, in Setup."_s, true};
}

std::optional<Choice> signOut(const LocalStatus& status)
{
    if (!builtInMode(status))
        return std::nullopt;
    return Choice{u"Sign out"_s,
        u"Sign Tidewatch’s Tailscale node out (another account, or a fresh start). Setup shows the new sign-in."_s,
        true};
}

QString heading()
{
    return u"Phone access"_s;
}

QString testCopyLine()
{
    return u"nothing (a test copy leaves phone access to the real install)"_s;
}

QString pinnedLine()
{
    return u"Your tailnet has no HTTPS certificates, so phones reach this address with %1 own certificate, pinned "
           "from the pairing code."_s.arg(machine::thisMachines());
}

} // namespace PhoneAccessWords
