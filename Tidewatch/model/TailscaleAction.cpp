#include "model/TailscaleAction.h"

namespace {

QString withoutTrailingSlash(QString url)
{
    if (url.endsWith(QLatin1Char('/')))
        url.chop(1);
    return url;
}

bool nonEmpty(const std::optional<QString>& text)
{
    return text && !text->isEmpty();
}

TailscaleAction builtIn(const TsnetStatus& tsnet)
{
    TailscaleAction action;
    const std::optional<TsnetStatus::Helper>& helper = tsnet.helper;
    const QString state = helper ? helper->state.value_or(QString()) : QString();
    if ((state == QLatin1StringView("Running") && nonEmpty(helper->listening)) || nonEmpty(tsnet.url)) {
        action.kind = TailscaleAction::Kind::ReadyBuiltIn;
        action.url = tsnet.url.value_or(QString());
        action.pinned = helper && helper->tls == QStringLiteral("pinned");
        if (helper) {
            action.account = helper->account;
            action.node = helper->dnsName;
        }
        return action;
    }
    if (state == QLatin1StringView("NeedsLogin") && helper->loginUrl
        && helper->loginUrl->startsWith(QLatin1StringView("https://"))) {
        action.kind = TailscaleAction::Kind::SignInBuiltIn;
        action.url = *helper->loginUrl;
        return action;
    }
    action.kind = TailscaleAction::Kind::BuiltInWaiting;
    if (helper && nonEmpty(helper->error))
        action.detail = *helper->error;
    else if (!state.isEmpty())
        action.detail = state;
    else
        action.detail = QStringLiteral("starting");
    return action;
}

} // namespace

TailscaleAction TailscaleAction::decide(const LocalStatus& status)
{
    if (status.tsnet && status.tsnet->mode == QStringLiteral("builtIn"))
        return builtIn(*status.tsnet);

    // A field an older service doesn't send counts as fine, so its shorter status raises no alarm.
    const TailscaleStatus app = status.tailscale.value_or(TailscaleStatus{});
    TailscaleAction action;
    if (!app.installed.value_or(true)) {
        action.kind = Kind::Install;
    } else if (!app.running.value_or(true)) {
        action.kind = Kind::OpenApp;
    } else if (!app.loggedIn.value_or(true)) {
        action.kind = Kind::OpenApp;
        action.loggedOut = true;
    } else if (!app.httpsEnabled.value_or(true)) {
        action.kind = Kind::EnableHTTPS;
    } else if (!app.serveOn.value_or(true) || !nonEmpty(app.url)) {
        action.kind = Kind::TurnOnServe;
    } else {
        action.kind = Kind::Ready;
        action.url = withoutTrailingSlash(*app.url);
    }
    return action;
}

QString phoneAddress(const LocalStatus& status)
{
    if (status.tailscale && nonEmpty(status.tailscale->url))
        return withoutTrailingSlash(*status.tailscale->url);
    const bool builtInOn
        = status.tsnet && (status.tsnet->mode == QStringLiteral("builtIn") || status.tsnet->enabled.value_or(false));
    if (builtInOn && nonEmpty(status.tsnet->url))
        return *status.tsnet->url;
    return {};
}

bool hasLanRoute(const LocalStatus& status)
{
    return status.lan && status.lan->addresses && !status.lan->addresses->isEmpty();
}

bool routeInOrder(const LocalStatus& status)
{
    return TailscaleAction::decide(status).isReady() || hasLanRoute(status);
}
