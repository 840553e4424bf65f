#include "link/ServiceCalls.h"

#include <QStringList>

namespace ServiceCalls {

namespace {

using Method = DaemonClient::Method;

QString sessionPath(const QString& sessionId, QLatin1StringView what)
{
    return QStringLiteral("/v1/sessions/") + DaemonClient::pathSegment(sessionId) + QLatin1Char('/') + what;
}

QJsonObject one(QLatin1StringView key, const QJsonValue& value)
{
    return QJsonObject{{key, value}};
}

} // namespace

ServiceCall<Snapshot> snapshot()
{
    return {Method::Get, QStringLiteral("/v1/snapshot"), std::nullopt, 8};
}

ServiceCall<LocalStatus> localStatus(bool fresh, bool qr)
{
    QStringList query;
    if (fresh)
        query << QStringLiteral("fresh=1");
    if (qr)
        query << QStringLiteral("qr=1");
    QString path = QStringLiteral("/local/status");
    if (!query.isEmpty())
        path += QLatin1Char('?') + query.join(QLatin1Char('&'));
    return {Method::Get, path, std::nullopt, fresh ? 15.0 : 6.0};
}

ServiceCall<FlexList<Device>> devices()
{
    return {Method::Get, QStringLiteral("/local/devices"), std::nullopt, 8};
}

ServiceCall<Ignored> forgetDevice(const QString& deviceId)
{
    return {Method::Delete, QStringLiteral("/local/devices/") + DaemonClient::pathSegment(deviceId), std::nullopt, 8};
}

ServiceCall<PairStart> pairStart(bool claimName)
{
    if (claimName)
        return {Method::Post, QStringLiteral("/local/pair/start?name=1"), std::nullopt, 8};
    return {Method::Post, QStringLiteral("/local/pair/start"), std::nullopt, 10};
}

ServiceCall<Ignored> pairCancel(const QString& code)
{
    return {Method::Post, QStringLiteral("/local/pair/cancel"), one(QLatin1StringView("code"), code), 8};
}

ServiceCall<Ignored> decideApproval(const QString& approvalId, const QString& decision)
{
    return {Method::Post,
        QStringLiteral("/v1/approvals/") + DaemonClient::pathSegment(approvalId) + QStringLiteral("/decision"),
        one(QLatin1StringView("decision"), decision), 10};
}

ServiceCall<OpenedReply> openTerminal(const QString& sessionId)
{
    return {Method::Post, sessionPath(sessionId, QLatin1StringView("open")), std::nullopt, 15};
}

ServiceCall<Ignored> continueSession(const QString& sessionId)
{
    return {Method::Post, sessionPath(sessionId, QLatin1StringView("continue")), std::nullopt, 10};
}

ServiceCall<Ignored> setAutoContinue(const QString& sessionId, bool on)
{
    return {
        Method::Post, sessionPath(sessionId, QLatin1StringView("auto-continue")), one(QLatin1StringView("on"), on), 20};
}

ServiceCall<Ignored> checkProvider(const QString& providerId)
{
    return {Method::Post,
        QStringLiteral("/v1/providers/") + DaemonClient::pathSegment(providerId) + QStringLiteral("/check"),
        std::nullopt, 12};
}

ServiceCall<AccountReply> signIn(const QString& where)
{
    return {Method::Post, QStringLiteral("/v1/account/login"), one(QLatin1StringView("where"), where), 20};
}

ServiceCall<UsageReply> refreshUsage()
{
    return {Method::Post, QStringLiteral("/v1/usage/refresh"), std::nullopt, 60};
}

ServiceCall<CodexReply> refreshCodex()
{
    return {Method::Post, QStringLiteral("/v1/codex/refresh"), std::nullopt, 20};
}

ServiceCall<AwakeReply> setAwake(const QJsonObject& change)
{
    return {Method::Post, QStringLiteral("/v1/mac/awake"), change, 10};
}

ServiceCall<Ignored> setSetting(Setting setting, bool on)
{
    const auto call = [on](const char* key, double timeout) -> ServiceCall<Ignored> {
        return {Method::Post, QStringLiteral("/local/settings"), one(QLatin1StringView(key), on), timeout};
    };
    switch (setting) {
    case Setting::Codex:
        return call("codex", 15);
    case Setting::BuiltInTailscale:
        return call("builtInTailscale", 30);
    case Setting::BrowseOutsideProjects:
        return call("browseOutsideProjects", 8);
    case Setting::NameService:
        return call("nameService", 8);
    }
    return call("codex", 15);
}

ServiceCall<LocalStatus> signOutTailscale()
{
    return {Method::Post, QStringLiteral("/local/tsnet/logout"), std::nullopt, 8};
}

ServiceCall<PausedReply> setAutomationsPaused(bool paused)
{
    return {Method::Post, QStringLiteral("/v1/automations/paused"), one(QLatin1StringView("paused"), paused), 10};
}

ServiceCall<WFRunReply> answerAsk(const QString& runId, const QString& stepId, const QString& answer)
{
    return {Method::Post,
        QStringLiteral("/v1/automations/runs/") + DaemonClient::pathSegment(runId) + QStringLiteral("/answer"),
        QJsonObject{{QStringLiteral("stepId"), stepId}, {QStringLiteral("answer"), answer}}, 10};
}

} // namespace ServiceCalls
