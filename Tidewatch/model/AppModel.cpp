#include "model/AppModel.h"

#include "link/ActionReplies.h"
#include "model/ActionCalls.h"
#include "model/Agents.h"
#include "model/AutomationActions.h"
#include "model/AwakeActions.h"
#include "model/CodexSignIn.h"
#include "model/DialogSlot.h"
#include "model/LiveSource.h"
#include "model/OffMainThread.h"
#include "model/SampleSource.h"
#include "model/SnapshotPatch.h"
#include "setup/Detection.h"
#include "setup/LoginItem.h"
#include "setup/OutsideTools.h"
#include "setup/ServiceKeeper.h"

#include <QTimer>

#include <cstdio>

namespace {

constexpr int kNoteMs = 6000;
constexpr int kAfterSignOutMs = 1200;
// A little past the fold's 1.6 s, so the prune after an answer finds it old.
constexpr int kPruneAfterAnswerMs = 1650;

std::optional<QString> accountState(const std::optional<Snapshot>& snapshot)
{
    if (!snapshot || !snapshot->account)
        return std::nullopt;
    return snapshot->account->state;
}

} // namespace

AppModel::AppModel(
    Environment environment, const Clock& clock, LiveFeed::Timing feedTiming, bool sample, QObject* parent)
    : QObject(parent)
    , m_environment(std::move(environment))
    , m_clock(clock)
    , m_awake(new AwakeActions(m_environment, this))
    , m_dialogs(new DialogSlot(this))
    , m_automations(new AutomationActions(this))
{
    m_lookForClaude = [detection = Detection(m_environment)] { return detection.detectClaude().path.has_value(); };
    m_buildInstaller = [environment = m_environment] { return ServiceInstaller::forCopy(environment); };
    m_keeper = new ServiceKeeper(m_buildInstaller, this);
    const auto note = [this](const QString& text) { showNote(text); };
    if (sample)
        m_source = std::make_unique<SampleSource>();
    else
        m_source = std::make_unique<LiveSource>(*this, m_environment, m_clock, feedTiming, note);
    m_loginItemEnabled = m_source->loginItemEnabled();

    connect(m_awake, &AwakeActions::choiceChanged, this, &AppModel::awakeChoiceChanged);
    connect(m_awake, &AwakeActions::busyChanged, this, &AppModel::backpackBusyChanged);
    connect(m_awake, &AwakeActions::panelWanted, this, &AppModel::panelWanted);
    connect(m_awake, &AwakeActions::failed, this, note);
    connect(m_awake, &AwakeActions::readWanted, this, [this] { read(false); });
    connect(m_awake, &AwakeActions::taken, this, &AppModel::takeAwake);
    connect(m_dialogs, &DialogSlot::dialogChanged, this, &AppModel::dialogChanged);
    connect(m_dialogs, &DialogSlot::workingChanged, this, &AppModel::dialogWorkingChanged);
    connect(m_dialogs, &DialogSlot::failed, this, note);
    connect(m_automations, &AutomationActions::pausedChoiceChanged, this, &AppModel::automationsPausedChoiceChanged);
    connect(m_automations, &AutomationActions::failed, this, note);
    connect(m_automations, &AutomationActions::readWanted, this, [this](bool withStatus) {
        // The read after the service took a pause or resume is the word that confirms it.
        if (withStatus)
            m_source->read(true, [this] { m_automations->clearPausedChoice(); });
        else
            read(false);
    });
}

AppModel::~AppModel() = default;

// MARK: The reads

void AppModel::start()
{
    m_source->act([this](ActionCalls&) {
        assign(m_loginItemEnabled, LoginItem::reconcile(m_environment), &AppModel::loginItemEnabledChanged);
    });
    m_source->start();
}

void AppModel::read(bool withStatus)
{
    m_source->read(withStatus, nullptr);
}

void AppModel::nudge()
{
    m_source->nudge();
}

void AppModel::setPopoverVisible(bool visible)
{
    if (visible == m_popoverVisible)
        return;
    m_popoverVisible = visible;
    m_source->popoverShown(visible);
    if (visible && m_codexSignInOpened && serviceUp())
        refreshCodex();
}

void AppModel::setFeedLive(bool live)
{
    assign(m_feedLive, live, &AppModel::feedLiveChanged);
}

void AppModel::take(const LiveFeed::Event& event)
{
    m_source->take(event);
}

void AppModel::takeMessage(const Feed::Message& message)
{
    if (SnapshotPatch::apply(m_snapshot, message)) {
        Q_EMIT snapshotChanged();
        if (SnapshotPatch::touchesApprovals(message))
            pruneAnswered();
        noteSignInProgress();
    }
    if (const auto* guide = std::get_if<GuideState>(&message))
        Q_EMIT guideReceived(*guide);
    else if (const auto* show = std::get_if<Feed::GuideShow>(&message))
        Q_EMIT guideShowRequested(show->guide, show->reason);
    else if (const auto* stt = std::get_if<SttState>(&message))
        Q_EMIT sttReceived(*stt);
}

void AppModel::showPicture(const Picture& picture)
{
    m_source->showPicture([this, &picture] {
        assign(m_health, picture.health, &AppModel::healthChanged);
        assign(m_status, picture.status, &AppModel::statusChanged);
        assign(m_snapshot, picture.snapshot, &AppModel::snapshotChanged);
        assign(m_answered, picture.answered, &AppModel::answeredChanged);
        assign(m_serviceNodeGone, picture.serviceNodeGone, &AppModel::serviceNodeGoneChanged);
        assign(m_serviceInstalled, picture.serviceInstalled, &AppModel::serviceInstalledChanged);
        assign(m_feedLive, picture.feedLive, &AppModel::feedLiveChanged);
        assign(m_signingIn, picture.signingIn, &AppModel::signingInChanged);
        assign(m_firstPollDone, picture.firstPollDone, &AppModel::firstPollDoneChanged);
        assign(m_serviceUpdate, picture.serviceUpdate, &AppModel::serviceUpdateChanged);
        assign(m_restarting, picture.restarting, &AppModel::restartingChanged);
        assign(m_updatingService, picture.updatingService, &AppModel::updatingServiceChanged);
        assign(m_repairing, picture.repairing, &AppModel::repairingChanged);
    });
}

QList<NeedsYouItem> AppModel::needsYou() const
{
    return Attention::needsYou(m_snapshot, m_status, m_answered, m_clock.now());
}

QList<Approval> AppModel::waitingApprovals() const
{
    return Attention::waitingApprovals(m_snapshot, m_status, m_answered);
}

AgentsInUse AppModel::agentsInUse() const
{
    const std::optional<bool> lookFound = m_claudeLook ? std::optional<bool>(m_claudeLook->found) : std::nullopt;
    return Agents::agentsInUse({m_snapshot, m_status, serviceUp(), m_source->isSample(), false, lookFound});
}

void AppModel::pruneAnswered()
{
    if (m_answered.isEmpty())
        return;
    assign(m_answered, Attention::pruned(m_answered, Attention::openApprovals(m_snapshot, m_status), m_clock.now()),
        &AppModel::answeredChanged);
}

void AppModel::setSnapshotPart(const std::function<bool(Snapshot&)>& change)
{
    if (m_snapshot && change(*m_snapshot)) {
        Q_EMIT snapshotChanged();
        noteSignInProgress();
    }
}

void AppModel::noteSignInProgress()
{
    // A sign-in started here is under way until the account moves on from where it stood.
    if (m_signingIn && accountState(m_snapshot) != m_signInFrom)
        assign(m_signingIn, false, &AppModel::signingInChanged);
}

// MARK: Notes

void AppModel::showNote(const QString& text)
{
    const Note note{text, QUuid::createUuid()};
    assign(m_note, note, &AppModel::noteChanged);
    QTimer::singleShot(kNoteMs, Qt::PreciseTimer, this, [this, id = note.id] {
        if (m_note && m_note->id == id)
            assign(m_note, std::nullopt, &AppModel::noteChanged);
    });
}

// MARK: Actions

void AppModel::decide(const Approval& approval, const QString& decision)
{
    m_source->act([&](ActionCalls& calls) {
        if (m_answered.contains(approval.id))
            return;
        Attention::AnsweredMap answered = m_answered;
        answered.insert(approval.id, Answered{approval, decision, m_clock.now()});
        assign(m_answered, std::move(answered), &AppModel::answeredChanged);

        const auto settle = [this] {
            read(false);
            QTimer::singleShot(kPruneAfterAnswerMs, this, [this] { pruneAnswered(); });
        };
        calls.runWith<Ignored>(
            ServiceCalls::decideApproval(approval.id, decision), [settle](Ignored) { settle(); },
            [this, approval, settle](const DaemonError& error) {
                // Someone else answered first: the wish was overtaken, and there is nothing to tell.
                if (error.kind == DaemonError::Kind::Server && error.status == 409) {
                    settle();
                    return;
                }
                Attention::AnsweredMap answered = m_answered;
                answered.remove(approval.id);
                assign(m_answered, std::move(answered), &AppModel::answeredChanged);
                const QList<Session> sessions = m_snapshot ? m_snapshot->sessions.items : QList<Session>();
                showNote(Attention::lostAnswerNote(
                    Attention::agentWord(approval, sessions, agentsInUse()), error.errorDescription()));
                read(false);
            });
    });
}

void AppModel::openTerminal(const QString& sessionId)
{
    run<OpenedReply>(ServiceCalls::openTerminal(sessionId), QStringLiteral("Couldn’t open its terminal. "), nullptr);
}

void AppModel::continueSession(const QString& sessionId)
{
    run<Ignored>(ServiceCalls::continueSession(sessionId), QStringLiteral("Couldn’t continue it. "),
        [this](Ignored) { read(false); });
}

void AppModel::setAutoContinue(const QString& sessionId, bool on)
{
    run<Ignored>(ServiceCalls::setAutoContinue(sessionId, on), QStringLiteral("Didn’t go through. "),
        [this](Ignored) { read(false); });
}

void AppModel::checkProvider(const QString& providerId, const QString& name)
{
    run<Ignored>(ServiceCalls::checkProvider(providerId), QStringLiteral("Couldn’t reach %1. ").arg(name),
        [this](Ignored) { read(false); });
}

void AppModel::signIn(const QString& where)
{
    run<AccountReply>(
        ServiceCalls::signIn(where), QStringLiteral("Couldn’t start signing in. "), [this](const AccountReply& reply) {
            if (reply.account)
                setSnapshotField(&Snapshot::account, reply.account);
            m_signInFrom = accountState(m_snapshot);
            assign(m_signingIn, true, &AppModel::signingInChanged);
        });
}

void AppModel::forgetDevice(const QString& deviceId, const QString& name)
{
    run<Ignored>(ServiceCalls::forgetDevice(deviceId), QStringLiteral("Couldn’t forget %1. ").arg(name),
        [this](Ignored) { readDevices(); });
}

void AppModel::askForgetDevice(const QString& deviceId, const QString& name, GlassDialog dialog)
{
    dialog.accent = Tone::Danger;
    dialog.confirm = [this, deviceId, name](bool, GlassDialog::Finish finish) {
        m_source->act([&](ActionCalls& calls) {
            calls.runWith<Ignored>(
                ServiceCalls::forgetDevice(deviceId),
                [this, finish](Ignored) {
                    readDevices();
                    read(true);
                    finish(std::nullopt);
                },
                [name, finish](const DaemonError& error) {
                    finish(QStringLiteral("Couldn’t forget %1. ").arg(name) + error.errorDescription());
                });
        });
    };
    showDialog(std::move(dialog));
}

void AppModel::readDevices()
{
    run<FlexList<Device>>(ServiceCalls::devices(), std::nullopt, [this](FlexList<Device> devices) {
        assign(m_deviceList, std::move(devices.items), &AppModel::deviceListChanged);
    });
}

void AppModel::refreshUsage()
{
    run<UsageReply>(ServiceCalls::refreshUsage(), std::nullopt, [this](const UsageReply& reply) {
        if (reply.usage)
            setSnapshotField(&Snapshot::usage, reply.usage);
    });
}

void AppModel::setCodexEnabled(bool on)
{
    run<Ignored>(ServiceCalls::setSetting(ServiceCalls::Setting::Codex, on),
        on ? QStringLiteral("Couldn’t turn Codex on. ") : QStringLiteral("Couldn’t turn Codex off. "),
        [this](Ignored) { read(false); });
}

void AppModel::refreshCodex()
{
    run<CodexReply>(ServiceCalls::refreshCodex(), std::nullopt, [this](const CodexReply& reply) {
        if (reply.present)
            setSnapshotField(&Snapshot::codex, reply.codex);
    });
}

std::optional<Codex> AppModel::trustedCodex() const
{
    return Agents::trustedCodex({m_snapshot, m_status, serviceUp(), m_source->isSample(), false, std::nullopt});
}

void AppModel::signInCodex()
{
    if (m_source->isSample() || m_codexBusy)
        return;
    const std::optional<Codex> codex = trustedCodex();
    const std::optional<QString> path = codex ? codex->path : std::nullopt;
    assign(m_codexBusy, true, &AppModel::codexBusyChanged);
    assign(m_codexError, std::optional<QString>(), &AppModel::codexErrorChanged);
    std::function<std::optional<QString>()> work
        = [environment = m_environment, tools = OutsideTools::current(m_environment).system, path] {
              return CodexSignIn::open(environment, tools, path);
          };
    offMainThread<std::optional<QString>>(this, std::move(work), [this](const std::optional<QString>& failure) {
        if (!failure)
            m_codexSignInOpened = true;
        assign(m_codexError, failure, &AppModel::codexErrorChanged);
        assign(m_codexBusy, false, &AppModel::codexBusyChanged);
    });
}

void AppModel::applicationBecameActive()
{
    if (m_codexSignInOpened && !m_source->isSample())
        refreshCodex();
}

void AppModel::setBuiltInTailscale(bool on)
{
    run<Ignored>(ServiceCalls::setSetting(ServiceCalls::Setting::BuiltInTailscale, on),
        QStringLiteral("Couldn’t change that. "), [this](Ignored) { read(true); });
}

void AppModel::setBrowseOutsideProjects(bool on, const QString& changed)
{
    run<Ignored>(ServiceCalls::setSetting(ServiceCalls::Setting::BrowseOutsideProjects, on),
        QStringLiteral("Couldn’t change Browse outside projects. "), [this, changed](Ignored) {
            showNote(changed);
            read(true);
        });
}

void AppModel::setNameService(bool on)
{
    run<Ignored>(ServiceCalls::setSetting(ServiceCalls::Setting::NameService, on),
        QStringLiteral("Couldn’t change the private name. "), [this](Ignored) { read(true); });
}

void AppModel::signOutTailscale()
{
    // A refusal is shown in the service's own words.
    run<LocalStatus>(ServiceCalls::signOutTailscale(), QString(), [this](LocalStatus status) {
        assign(m_status, std::move(status), &AppModel::statusChanged);
        // The node takes a moment to settle; the read after shows where it went.
        QTimer::singleShot(kAfterSignOutMs, this, [this] { read(true); });
    });
}

// MARK: Open at Login

void AppModel::setLoginItem(bool on)
{
    m_source->act([this, on](ActionCalls&) {
        const LoginItem::Change change = LoginItem::set(m_environment, on);
        if (change.failure) {
            std::fputs(qPrintable(LoginItem::failureLine(*change.failure) + u'\n'), stdout);
            std::fflush(stdout);
        }
        assign(m_loginItemEnabled, change.enabled, &AppModel::loginItemEnabledChanged);
    });
}

// MARK: Stay awake

const std::optional<Awake::Mode>& AppModel::awakeChoice() const
{
    return m_awake->choice();
}

bool AppModel::backpackBusy() const
{
    return m_awake->busy();
}

void AppModel::takeAwake(const Awake& awake)
{
    setSnapshotPart([&awake](Snapshot& snapshot) {
        if (!snapshot.mac)
            snapshot.mac = Snapshot::Mac{};
        if (snapshot.mac->awake == awake)
            return false;
        snapshot.mac->awake = awake;
        return true;
    });
}

void AppModel::setAwake(Awake::Mode mode)
{
    m_source->act([this, mode](ActionCalls& calls) { m_awake->setAwake(calls, mode); });
}

void AppModel::extendBackpack()
{
    m_source->act([this](ActionCalls& calls) { m_awake->extendBackpack(calls); });
}

void AppModel::setMinBattery(int percent)
{
    m_source->act([this, percent](ActionCalls& calls) { m_awake->setMinBattery(calls, percent); });
}

void AppModel::setupBackpack()
{
    m_source->act([this](ActionCalls& calls) { m_awake->setupBackpack(calls); });
}

void AppModel::removeBackpack()
{
    m_source->act([this](ActionCalls&) { m_awake->removeBackpack(); });
}

// MARK: Automations

std::optional<AutomationsState> AppModel::automations() const
{
    std::optional<AutomationsState> state;
    if (m_snapshot && m_snapshot->automations)
        state = AutomationsState::fromSnapshot(*m_snapshot->automations);
    else if (m_status && m_status->automations)
        state = AutomationsState::fromStatus(*m_status->automations);
    if (state && m_automations->pausedChoice())
        state->paused = *m_automations->pausedChoice();
    return state;
}

const std::optional<bool>& AppModel::automationsPausedChoice() const
{
    return m_automations->pausedChoice();
}

void AppModel::setAutomationsPaused(bool paused)
{
    m_source->act([this, paused](ActionCalls& calls) { m_automations->setPaused(calls, paused); });
}

void AppModel::answerAsk(const WFAskItem& ask, const QString& answer)
{
    m_source->act([this, &ask, &answer](ActionCalls& calls) { m_automations->answer(calls, ask, answer); });
}
