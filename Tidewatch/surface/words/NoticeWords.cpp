#include "surface/words/NoticeWords.h"

#include "text/Machine.h"
#include "text/TimeWords.h"
#include "workflows/WorkflowWords.h"

#include <algorithm>

namespace {

constexpr double kKeyWarningSeconds = 1209600; // 14 days

Notice make(
    QString id, Tone tone, QString title, std::optional<QString> line, std::optional<QString> action, QString key)
{
    Notice notice;
    notice.id = std::move(id);
    notice.tone = tone;
    notice.title = std::move(title);
    notice.line = std::move(line);
    notice.action = std::move(action);
    notice.key = std::move(key);
    return notice;
}

std::optional<Notice> setupNotice(SetupStep step, bool codexTooOld)
{
    const QString key = [step] {
        switch (step) {
        case SetupStep::Claude:
            return QStringLiteral("claude");
        case SetupStep::Service:
            return QStringLiteral("service");
        case SetupStep::Connect:
            return QStringLiteral("connect");
        case SetupStep::Tailscale:
            return QStringLiteral("tailscale");
        case SetupStep::Voice:
            return QStringLiteral("voice");
        case SetupStep::Codex:
            return QStringLiteral("codex");
        case SetupStep::Phone:
            return QStringLiteral("phone");
        }
        return QString();
    }();
    const auto unfinished = [&](const QString& line) {
        return make(QStringLiteral("setup"), Tone::Amber, QStringLiteral("Setup isn’t finished"), line,
            QStringLiteral("Open"), key);
    };
    switch (step) {
    case SetupStep::Claude:
        return make(QStringLiteral("setup"), Tone::Amber,
            QStringLiteral("No agent on %1 yet").arg(machine::thisMachine()),
            QStringLiteral("Install Claude Code or Codex, so there’s an agent to work with."), QStringLiteral("Open"),
            key);
    case SetupStep::Connect:
        return unfinished(QStringLiteral("Connect Claude Code to Tidewatch."));
    case SetupStep::Tailscale:
        return unfinished(
            QStringLiteral("Turn on phone access, so your phone reaches %1.").arg(machine::thisMachine()));
    case SetupStep::Codex:
        return unfinished(codexTooOld ? QStringLiteral("Update Codex with codex update, then turn it on in Setup.")
                                      : QStringLiteral("Turn on Codex, so your phone can start Codex sessions."));
    case SetupStep::Phone:
        return make(QStringLiteral("setup"), Tone::Accent, QStringLiteral("Pair your phone to get started"),
            QStringLiteral("Scan a code with Tidewatch for Android."), QStringLiteral("Pair"), key);
    case SetupStep::Service:
    case SetupStep::Voice:
        break;
    }
    return std::nullopt;
}

Notice sdkNotice(const NoticeInputs& inputs)
{
    const QString line = QStringLiteral("Sessions the service runs itself, the “/” list and Rewind need it (")
        + inputs.sdkSize.value_or(QStringLiteral("about 2 MB")) + QStringLiteral(" from npm).");
    const bool missing = inputs.sdk == NoticeInputs::Sdk::Missing;
    QString action = missing && !inputs.sdkFetchFailed ? QStringLiteral("Fetch") : QStringLiteral("Fetch again");
    if (inputs.fetchingSDK)
        action = QStringLiteral("Fetching…");
    Notice notice = make(QStringLiteral("sdk"), Tone::Amber,
        missing ? QStringLiteral("Claude Code’s SDK isn’t here yet")
                : QStringLiteral("Claude Code’s SDK is out of date"),
        line, action, missing ? QStringLiteral("missing") : QStringLiteral("outdated"));
    notice.busy = inputs.fetchingSDK;
    notice.help = QStringLiteral("Fetches it from npm into the background service, which keeps running.");
    return notice;
}

} // namespace

bool keyExpiryCounts(const FlexDate& expiry, const QDateTime& now)
{
    return TimeWords::secondsFrom(now, expiry) < kKeyWarningSeconds;
}

QList<Notice> buildNotices(const NoticeInputs& inputs, const QDateTime& now)
{
    QList<Notice> notices;
    if (inputs.serviceUp && inputs.lastError) {
        Notice error = make(QStringLiteral("error"), Tone::Danger, QStringLiteral("The service didn’t answer that"),
            inputs.lastError, inputs.restarting ? QStringLiteral("Restarting…") : QStringLiteral("Restart"),
            QStringLiteral("error"));
        error.busy = inputs.restarting;
        notices << error;
    }
    for (const WFAskItem& ask : inputs.asks) {
        Notice notice
            = make(QStringLiteral("ask-") + ask.runId, Tone::Amber, ask.name, ask.question, std::nullopt, ask.runId);
        notice.choices = ask.answers;
        notice.ask = ask;
        notices << notice;
    }
    if (inputs.serviceUpdate) {
        Notice update = make(QStringLiteral("update"), Tone::Accent, QStringLiteral("A newer service is ready"),
            QStringLiteral("Updating takes a few seconds. Shared terminals keep running."),
            inputs.updatingService ? QStringLiteral("Updating…") : QStringLiteral("Update"), QStringLiteral("update"));
        update.busy = inputs.updatingService;
        notices << update;
    }
    if (inputs.sdk != NoticeInputs::Sdk::Current)
        notices << sdkNotice(inputs);
    if (inputs.setupGap) {
        if (std::optional<Notice> setup = setupNotice(*inputs.setupGap, inputs.codexTooOld))
            notices << *setup;
    } else if (inputs.serviceUp && !inputs.voiceUsable && !inputs.voiceAsked) {
        Notice voice = make(QStringLiteral("voice"), Tone::Accent, QStringLiteral("Talk to your sessions"),
            QStringLiteral("Hold a mic on your phone, say what to do, send."), QStringLiteral("Set up"),
            QStringLiteral("voice"));
        voice.help
            = QStringLiteral("Hold a mic on your phone, say what to do, read it, send. Opens Setup at the Voice step.");
        notices << voice;
    }
    if (inputs.keyExpiry && keyExpiryCounts(*inputs.keyExpiry, now)) {
        const double left = TimeWords::secondsFrom(now, *inputs.keyExpiry);
        const QString day = QString::number(inputs.keyExpiry->msecsSinceEpoch / 86400000);
        if (left <= 0) {
            notices << make(QStringLiteral("key"), Tone::Amber,
                machine::ThisMachine() + QStringLiteral("’s Tailscale key has expired"),
                QStringLiteral("Disable key expiry for %1 in the Tailscale admin console, so your "
                               "phone never loses the connection.")
                    .arg(machine::thisMachine()),
                QStringLiteral("Fix"), day);
        } else {
            notices << make(QStringLiteral("key"), Tone::Amber,
                QStringLiteral("Tailscale key expires in ") + TimeWords::compactDuration(left),
                QStringLiteral("Turn key expiry off for %1, so your phone keeps the connection.")
                    .arg(machine::thisMachine()),
                QStringLiteral("Fix"), day);
        }
    }
    return notices;
}

std::optional<QString> noticeHelp(const Notice& notice)
{
    if (!notice.help)
        return std::nullopt;
    return *notice.help + QStringLiteral("\n\nDrag to the right to dismiss.");
}

std::optional<QString> noticeFigure(const Notice& notice, const QDateTime& now)
{
    if (!notice.ask)
        return std::nullopt;
    return WorkflowWords::countdown(*notice.ask, now);
}

ServiceDownCard serviceDownCard(const ServiceDownInputs& inputs)
{
    ServiceDownCard card;
    if (inputs.serviceNodeGone) {
        card.title = QStringLiteral("The Node.js the service used is gone.");
        card.line = QStringLiteral("It ran on ") + *inputs.serviceNodeGone
            + QStringLiteral(". Repair gets Node.js and starts the service again; shared terminals keep running.");
        card.act = ServiceDownCard::Act::Repair;
        card.action = inputs.repairing ? QStringLiteral("Repairing…") : QStringLiteral("Repair");
    } else if (!inputs.serviceInstalled) {
        card.title = QStringLiteral("Tidewatch isn’t set up on %1 yet.").arg(machine::thisMachine());
        card.line = QStringLiteral("Setup takes a few minutes and walks you through every step.");
        card.act = ServiceDownCard::Act::Repair;
        card.action = inputs.repairing ? QStringLiteral("Setting up…") : QStringLiteral("Set up");
    } else {
        card.title = QStringLiteral("The background service isn’t answering.");
        card.line = QStringLiteral("Your phone can’t reach your sessions until it’s back. Restarting usually fixes "
                                   "it; shared terminals keep running.");
        card.action = inputs.restarting ? QStringLiteral("Restarting…") : QStringLiteral("Restart");
        card.busy = inputs.restarting;
    }
    if (card.act == ServiceDownCard::Act::Repair && inputs.repairing) {
        card.busy = true;
        card.progress = repairProgressWords(*inputs.repairing);
    }
    return card;
}

std::optional<QString> repairProgressWords(const ServiceInstaller::Progress& progress)
{
    using Step = ServiceInstaller::Progress::Step;
    switch (progress.step) {
    case Step::GettingNode:
        // Before the download says how far it is, the step may still be choosing a Node.js already here.
        if (!progress.fraction)
            return std::nullopt;
        return QStringLiteral("Getting Node.js… %1%").arg(qRound(std::clamp(*progress.fraction, 0.0, 1.0) * 100));
    case Step::Copying:
        return QStringLiteral("Copying the service…");
    case Step::FetchingSDK:
        return QStringLiteral("Fetching Claude Code’s SDK…");
    case Step::Writing:
    case Step::Starting:
        return QStringLiteral("Starting the service…");
    case Step::Waiting:
        return QStringLiteral("Waiting for it to answer…");
    }
    return std::nullopt;
}

QString checkingLine()
{
    return QStringLiteral("Checking the background service…");
}
