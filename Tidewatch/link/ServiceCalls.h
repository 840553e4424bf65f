#pragma once

#include "link/ActionReplies.h"
#include "link/DaemonClient.h"
#include "link/PairStart.h"
#include "link/WFRun.h"

#include <QJsonObject>
#include <QString>

#include <optional>

/// One call of the service: where it goes, what it carries, how long it may
/// take, and what its 2xx reply reads as.
template <class Reply> struct ServiceCall {
    DaemonClient::Method method = DaemonClient::Method::Post;
    QString path;
    std::optional<QJsonObject> body;
    double timeout = 10;

    /// Posts it on `client`; the reply or the failure comes back on the client's thread.
    void send(DaemonClient& client, DaemonClient::Callback<Reply> done) const
    {
        client.call<Reply>(method, path, body, timeout, std::move(done));
    }
};

/// Every call the app's model makes, named for what it does: the one place
/// that knows each call's path, method, body and time limit.
namespace ServiceCalls {

/// The health probe's limit; the probe itself goes to the API port without a token.
inline constexpr double healthTimeout = 1.5;

ServiceCall<Snapshot> snapshot();
/// `fresh` asks the service to look again rather than answer from memory; `qr` adds the pairing picture.
ServiceCall<LocalStatus> localStatus(bool fresh = false, bool qr = false);
ServiceCall<FlexList<Device>> devices();
ServiceCall<Ignored> forgetDevice(const QString& deviceId);
/// A new one-time pairing code; `claimName` also claims this machine's private name.
ServiceCall<PairStart> pairStart(bool claimName = false);
/// Withdraws a code that was replaced or left on screen.
ServiceCall<Ignored> pairCancel(const QString& code);

/// `decision` is the service's word, such as "allow" or "deny".
ServiceCall<Ignored> decideApproval(const QString& approvalId, const QString& decision);
ServiceCall<OpenedReply> openTerminal(const QString& sessionId);
ServiceCall<Ignored> continueSession(const QString& sessionId);
ServiceCall<Ignored> setAutoContinue(const QString& sessionId, bool on);
ServiceCall<Ignored> checkProvider(const QString& providerId);
/// `where` is "mac" or "phone".
ServiceCall<AccountReply> signIn(const QString& where);
ServiceCall<UsageReply> refreshUsage();
ServiceCall<CodexReply> refreshCodex();
/// A change of Stay awake: any of `mode`, `minBattery` and `extend`.
ServiceCall<AwakeReply> setAwake(const QJsonObject& change);
/// One of the switches in the service's settings; each has a time limit of its own.
enum class Setting { Codex, BuiltInTailscale, BrowseOutsideProjects, NameService };
ServiceCall<Ignored> setSetting(Setting setting, bool on);
ServiceCall<LocalStatus> signOutTailscale();

/// Pauses every automation, or lets them start by themselves again.
ServiceCall<PausedReply> setAutomationsPaused(bool paused);
/// Answers the run that waits at the ask step `stepId`; `answer` is one of the step's answers.
ServiceCall<WFRunReply> answerAsk(const QString& runId, const QString& stepId, const QString& answer);

} // namespace ServiceCalls
