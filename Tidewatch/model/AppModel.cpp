#include "model/AppModel.h"

#include "awake/BackpackSetup.h"
#include "base/UserAccount.h"
#include "link/ActionReplies.h"
#include "model/Agents.h"
#include "model/SnapshotPatch.h"
#include "platform/Platform.h"
#include "platform/Services.h"
#include "setup/Detection.h"
#include "setup/ServiceKeeper.h"

#include <QPointer>
#include <QFileInfo>
#include <QThread>
#include <QTimer>

namespace {

constexpr double kHealthLimit = 1.5;
constexpr int kNoteMs = 6000;
constexpr int kAfterSignOutMs = 1200;
// A little past the fold's 1.6 s, so the prune after an answer finds it old.
constexpr int kPruneAfterAnswerMs = 1650;

int milliseconds(double seconds)
{
    return std::max(1, int(seconds * 1000));
}

QString sessionPath(const QString& sessionId, const char* what)
{
    return QStringLiteral("/v1/sessions/") + DaemonClient::pathSegment(sessionId) + QLatin1Char('/')
        + QLatin1StringView(what);
}

QJsonObject setting(const char* key, bool value)
{
    return QJsonObject{{QLatin1StringView(key), value}};
}

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
    , m_feedTiming(feedTiming)
    , m_sample(sample)
    , m_client(std::make_unique<DaemonClient>(m_environment))
    , m_nap(new QTimer(this))
{
    m_nap->setSingleShot(true);
    m_nap->setTimerType(Qt::PreciseTimer);
    connect(m_nap, &QTimer::timeout, this, &AppModel::turn);
    m_lookForClaude = [detection = Detection(m_environment)] { return detection.detectClaude().path.has_value(); };
    m_buildInstaller = [environment = m_environment] { return ServiceInstaller::forCopy(environment); };
    m_keeper = new ServiceKeeper(m_buildInstaller, this);
    // A test copy never has the person's login item.
    if (!m_sample && !m_environment.isTestCopy())
        m_loginItemEnabled = platform::loginItemEnabled();
}

AppModel::~AppModel()
{
    // Replies and feed events hold this model; their sources go before it does.
    m_feed.reset();
    m_client.reset();
}

// MARK: The loop

void AppModel::start()
{
    if (m_sample)
        return;
    if (!m_feedStarted) {
        m_feedStarted = true;
        startFeed();
    }
    if (m_loopRunning)
        return;
    m_loopRunning = true;
    m_readNow = true;
    m_statusNow = true;
    checkServiceUpdate();
    turn();
}

ReadPace AppModel::pace() const
{
    ReadPace pace;
    pace.failing = m_failingSince.has_value();
    pace.feedLive = m_feedLive;
    pace.popoverVisible = m_popoverVisible;
    pace.lastRead = m_lastRead;
    pace.lastStatus = m_lastStatus;
    pace.heardAt = feedHeardAt();
    return pace;
}

std::optional<QDateTime> AppModel::feedHeardAt() const
{
    return m_feed ? m_feed->heardAt() : std::nullopt;
}

void AppModel::turn()
{
    if (!m_loopRunning || m_loopReading)
        return;
    m_nap->stop();
    const QDateTime now = m_clock.now();
    const ReadPace current = pace();
    if (const std::optional<double> nap = current.nap(m_readNow, now)) {
        m_nap->start(milliseconds(*nap));
        return;
    }
    const bool withStatus = current.withStatus(m_statusNow, now);
    m_readNow = false;
    m_statusNow = false;
    m_loopReading = true;
    readThen(withStatus, [this] {
        m_loopReading = false;
        QMetaObject::invokeMethod(this, &AppModel::turn, Qt::QueuedConnection);
    });
}

void AppModel::cancelNap()
{
    // Cutting the sleep short is deciding again now; during a read the loop
    // decides again when it ends anyway.
    if (!m_nap->isActive())
        return;
    m_nap->stop();
    QMetaObject::invokeMethod(this, &AppModel::turn, Qt::QueuedConnection);
}

void AppModel::read(bool withStatus)
{
    readThen(withStatus, nullptr);
}

void AppModel::readThen(bool withStatus, std::function<void()> done)
{
    if (m_sample) {
        if (done)
            done();
        return;
    }
    ++m_reading;
    m_client->health(kHealthLimit, [this, withStatus, done = std::move(done)](std::optional<Health> health) mutable {
        afterHealth(withStatus, std::move(health), std::move(done));
    });
}

void AppModel::afterHealth(bool withStatus, std::optional<Health> health, std::function<void()> done)
{
    const QDateTime now = m_clock.now();
    assign(m_serviceInstalled, QFileInfo::exists(m_environment.serviceUnitFile()), &AppModel::serviceInstalledChanged);

    if (!health && m_feedLive) {
        if (ReadPace::feedBelieved(feedHeardAt(), now)) {
            // A probe can fail while the service is busy; a feed heard a moment
            // ago is the better witness. Nothing on screen changes, and the
            // probe is tried again soon.
            if (withStatus)
                m_statusNow = true;
            if (!m_failingSince) {
                m_failingSince = now;
                cancelNap();
            }
            endRead(std::move(done));
            return;
        }
        setFeedLive(false);
        startFeed();
    }
    m_failingSince.reset();
    // The service has come back: its feed is tried at once rather than after the back-off.
    if (health && !m_health && m_firstPollDone && m_feedStarted && !m_feedLive)
        startFeed();
    assign(m_health, health, &AppModel::healthChanged);

    if (!health) {
        assign(m_snapshot, std::nullopt, &AppModel::snapshotChanged);
        assign(m_status, std::nullopt, &AppModel::statusChanged);
        assign(m_lastError, std::nullopt, &AppModel::lastErrorChanged);
        finishRead(false, std::move(done));
        return;
    }

    const qint64 generation = m_feedGeneration;
    m_client->snapshot([this, generation, withStatus, done = std::move(done)](DaemonResult<Snapshot> result) mutable {
        if (result.ok()) {
            // A reply that crossed a feed message is older than what the feed said.
            if (generation == m_feedGeneration
                && assign(m_snapshot, std::move(result.value()), &AppModel::snapshotChanged))
                pruneAnswered();
            assign(m_lastError, std::nullopt, &AppModel::lastErrorChanged);
            noteSignInProgress();
        } else {
            assign(m_lastError, result.error().errorDescription(), &AppModel::lastErrorChanged);
        }
        readStatusPart(withStatus, std::move(done));
    });
}

void AppModel::readStatusPart(bool withStatus, std::function<void()> done)
{
    if (!withStatus && m_status) {
        finishRead(true, std::move(done));
        return;
    }
    const bool feedLiveBefore = m_feedLive;
    m_client->localStatus(
        false, false, [this, feedLiveBefore, done = std::move(done)](DaemonResult<LocalStatus> result) mutable {
            if (result.ok()) {
                assign(m_status, std::move(result.value()), &AppModel::statusChanged);
                // With the feed live, the count of connected clients includes this app.
                m_statusCountsFeed = feedLiveBefore;
            }
            m_lastStatus = m_clock.now();
            if (m_feedLive != feedLiveBefore) {
                m_readNow = true;
                m_statusNow = true;
                cancelNap();
            }
            finishRead(true, std::move(done));
        });
}

void AppModel::finishRead(bool serviceAnswered, std::function<void()> done)
{
    lookForClaudeIfDue();
    checkServiceNode(serviceAnswered);
    endRead(std::move(done));
}

void AppModel::endRead(std::function<void()> done)
{
    m_lastRead = m_clock.now();
    assign(m_firstPollDone, true, &AppModel::firstPollDoneChanged);
    --m_reading;
    Q_EMIT readFinished();
    if (done)
        done();
}

void AppModel::lookForClaudeIfDue()
{
    const std::optional<bool> lookFound = m_claudeLook ? std::optional<bool>(m_claudeLook->found) : std::nullopt;
    const Agents::Inputs inputs{m_snapshot, m_status, serviceUp(), m_sample, false, lookFound};
    const std::optional<QDateTime> lastLook = m_claudeLook ? std::optional(m_claudeLook->at) : std::nullopt;
    if (!m_lookForClaude
        || !ReadPace::claudeLookDue(Agents::serviceSaysNoClaude(inputs), m_claudeLooking, lastLook, m_clock.now()))
        return;
    m_claudeLooking = true;
    offMainThread<bool>(m_lookForClaude, [this](bool found) {
        m_claudeLooking = false;
        assign(m_claudeLook, ClaudeLook{found, m_clock.now()}, &AppModel::claudeLookChanged);
    });
}

void AppModel::nudge()
{
    const QDateTime now = m_clock.now();
    if (!ReadPace::nudgeWanted(!m_health || !m_snapshot, m_reading, m_lastNudge, now))
        return;
    m_lastNudge = now;
    m_readNow = true;
    cancelNap();
}

void AppModel::setPopoverVisible(bool visible)
{
    if (visible == m_popoverVisible)
        return;
    m_popoverVisible = visible;
    if (visible) {
        m_readNow = true;
        m_statusNow = true;
    }
    cancelNap();
    if (!visible || m_sample)
        return;
    const QDateTime now = m_clock.now();
    const std::optional<Usage> usage = m_snapshot ? m_snapshot->usage : std::nullopt;
    if (serviceUp() && ReadPace::usageRefreshWanted(usage, m_lastUsageAsk, now)) {
        m_lastUsageAsk = now;
        refreshUsage();
    }
}

// MARK: The feed

void AppModel::startFeed()
{
    if (!m_feed) {
        m_feed = std::make_unique<LiveFeed>(m_environment, m_clock, m_feedTiming);
        m_feed->setSink([this](const LiveFeed::Event& event) { take(event); });
    }
    m_feed->start();
}

void AppModel::setFeedLive(bool live)
{
    assign(m_feedLive, live, &AppModel::feedLiveChanged);
}

void AppModel::take(const LiveFeed::Event& event)
{
    if (m_sample)
        return;
    if (event.kind == LiveFeed::Event::Kind::Live) {
        if (event.live == m_feedLive)
            return;
        setFeedLive(event.live);
        if (!event.live) {
            m_failingSince.reset();
            m_readNow = true;
        }
        cancelNap();
        return;
    }
    if (!event.message)
        return;
    const Feed::Message& message = *event.message;
    if (std::holds_alternative<Feed::DevicesChanged>(message)) {
        m_readNow = true;
        m_statusNow = true;
        cancelNap();
        return;
    }
    // Counted before the patch: a snapshot read in flight now carries older news.
    ++m_feedGeneration;
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
    nudge();
}

void AppModel::showPicture(const Picture& picture)
{
    if (!m_sample)
        return;
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
    return Agents::agentsInUse({m_snapshot, m_status, serviceUp(), m_sample, false, lookFound});
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
    if (m_sample || m_answered.contains(approval.id))
        return;
    Attention::AnsweredMap answered = m_answered;
    answered.insert(approval.id, Answered{approval, decision, m_clock.now()});
    assign(m_answered, std::move(answered), &AppModel::answeredChanged);

    const auto settle = [this] {
        read(false);
        QTimer::singleShot(kPruneAfterAnswerMs, this, [this] { pruneAnswered(); });
    };
    const QString path = QStringLiteral("/v1/approvals/") + DaemonClient::pathSegment(approval.id)
        + QStringLiteral("/decision");
    runWith<Ignored>({DaemonClient::Method::Post, path, QJsonObject{{QStringLiteral("decision"), decision}}, 10},
        [settle](Ignored) { settle(); },
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
}

void AppModel::openTerminal(const QString& sessionId)
{
    run<OpenedReply>({DaemonClient::Method::Post, sessionPath(sessionId, "open"), std::nullopt, 15},
        QStringLiteral("Couldn’t open its terminal. "), nullptr);
}

void AppModel::continueSession(const QString& sessionId)
{
    run<Ignored>({DaemonClient::Method::Post, sessionPath(sessionId, "continue"), std::nullopt, 10},
        QStringLiteral("Couldn’t continue it. "), [this](Ignored) { read(false); });
}

void AppModel::setAutoContinue(const QString& sessionId, bool on)
{
    run<Ignored>({DaemonClient::Method::Post, sessionPath(sessionId, "auto-continue"), setting("on", on), 20},
        QStringLiteral("Didn’t go through. "), [this](Ignored) { read(false); });
}

void AppModel::checkProvider(const QString& providerId, const QString& name)
{
    const QString path
        = QStringLiteral("/v1/providers/") + DaemonClient::pathSegment(providerId) + QStringLiteral("/check");
    run<Ignored>({DaemonClient::Method::Post, path, std::nullopt, 12}, QStringLiteral("Couldn’t reach %1. ").arg(name),
        [this](Ignored) { read(false); });
}

void AppModel::signIn(const QString& where)
{
    run<AccountReply>({DaemonClient::Method::Post, QStringLiteral("/v1/account/login"),
                          QJsonObject{{QStringLiteral("where"), where}}, 20},
        QStringLiteral("Couldn’t start signing in. "), [this](AccountReply reply) {
            if (reply.account)
                setSnapshotPart([&reply](Snapshot& snapshot) {
                    if (snapshot.account == reply.account)
                        return false;
                    snapshot.account = reply.account;
                    return true;
                });
            m_signInFrom = accountState(m_snapshot);
            assign(m_signingIn, true, &AppModel::signingInChanged);
        });
}

void AppModel::forgetDevice(const QString& deviceId, const QString& name)
{
    const QString path = QStringLiteral("/local/devices/") + DaemonClient::pathSegment(deviceId);
    run<Ignored>({DaemonClient::Method::Delete, path, std::nullopt, 8},
        QStringLiteral("Couldn’t forget %1. ").arg(name), [this](Ignored) { readDevices(); });
}

void AppModel::askForgetDevice(const QString& deviceId, const QString& name)
{
    GlassDialog dialog;
    dialog.title = QStringLiteral("Forget ") + name;
    dialog.line = QStringLiteral("Its token stops working at once, on Tailscale and on the local network. Glasses that "
                                 "come through it stop too.");
    dialog.accent = Tone::Danger;
    dialog.secondary = QStringLiteral("Keep");
    dialog.primary = QStringLiteral("Forget");
    dialog.confirm = [this, deviceId, name](bool, GlassDialog::Finish finish) {
        const QString path = QStringLiteral("/local/devices/") + DaemonClient::pathSegment(deviceId);
        runWith<Ignored>({DaemonClient::Method::Delete, path, std::nullopt, 8},
            [this, finish](Ignored) {
                readDevices();
                finish(std::nullopt);
            },
            [name, finish](const DaemonError& error) {
                finish(QStringLiteral("Couldn’t forget %1. ").arg(name) + error.errorDescription());
            });
    };
    showDialog(std::move(dialog));
}

// MARK: Stay awake

void AppModel::takeAwake(const std::optional<Awake>& awake)
{
    if (!awake)
        return;
    setSnapshotPart([&awake](Snapshot& snapshot) {
        if (!snapshot.mac)
            snapshot.mac = Snapshot::Mac{};
        if (snapshot.mac->awake == awake)
            return false;
        snapshot.mac->awake = awake;
        return true;
    });
}

void AppModel::changeAwake(const QJsonObject& change, const QString& opening, bool clearsChoice)
{
    runWith<AwakeReply>({DaemonClient::Method::Post, QStringLiteral("/v1/mac/awake"), change, 15},
        [this, clearsChoice](AwakeReply reply) {
            takeAwake(reply.awake);
            if (clearsChoice)
                assign(m_awakeChoice, std::nullopt, &AppModel::awakeChoiceChanged);
        },
        [this, opening, clearsChoice](const DaemonError& error) {
            if (clearsChoice)
                assign(m_awakeChoice, std::nullopt, &AppModel::awakeChoiceChanged);
            if (error.code == QStringLiteral("needs_setup"))
                showNote(QStringLiteral("Backpack mode needs its one-time setup again."));
            else
                showNote(opening + error.errorDescription());
        });
}

void AppModel::setAwake(Awake::Mode mode)
{
    if (m_sample)
        return;
    assign(m_awakeChoice, std::optional(mode), &AppModel::awakeChoiceChanged);
    changeAwake(QJsonObject{{QStringLiteral("mode"), awakeModeName(mode)}}, QStringLiteral("Couldn’t change Stay awake. "),
        true);
}

void AppModel::extendBackpack()
{
    changeAwake(QJsonObject{{QStringLiteral("extend"), true}}, QStringLiteral("Couldn’t extend Backpack. "), false);
}

void AppModel::setMinBattery(int percent)
{
    changeAwake(QJsonObject{{QStringLiteral("minBattery"), percent}},
        QStringLiteral("Couldn’t change the battery level. "), false);
}

void AppModel::setupBackpack()
{
    if (m_sample || m_backpackBusy)
        return;
    assign(m_backpackBusy, true, &AppModel::backpackBusyChanged);
    const auto fail = [this](const QString& sentence) {
        showNote(QStringLiteral("Backpack mode isn’t set up. ") + sentence);
        assign(m_backpackBusy, false, &AppModel::backpackBusyChanged);
        Q_EMIT panelWanted();
    };
    // A moment for the panel to close before the system's password dialog takes the screen.
    QTimer::singleShot(250, this, [this, fail] {
        offMainThread<BackpackSetup::Outcome>(
            [environment = m_environment] {
                return BackpackSetup::install(environment, account::userName(), true);
            },
            [this, fail](BackpackSetup::Outcome outcome) {
                if (outcome && outcome->kind == BackpackSetup::Failure::Kind::Cancelled) {
                    assign(m_backpackBusy, false, &AppModel::backpackBusyChanged);
                    return;
                }
                if (outcome) {
                    fail(outcome->sentence);
                    return;
                }
                runWith<AwakeReply>({DaemonClient::Method::Post, QStringLiteral("/v1/mac/awake"),
                                        QJsonObject{{QStringLiteral("mode"), QStringLiteral("backpack")}}, 15},
                    [this](AwakeReply reply) {
                        takeAwake(reply.awake);
                        assign(m_backpackBusy, false, &AppModel::backpackBusyChanged);
                        Q_EMIT panelWanted();
                    },
                    [fail](const DaemonError& error) { fail(error.errorDescription()); });
            });
    });
}

void AppModel::removeBackpack()
{
    if (m_sample || m_backpackBusy)
        return;
    assign(m_backpackBusy, true, &AppModel::backpackBusyChanged);
    offMainThread<BackpackSetup::Outcome>(
        [environment = m_environment] { return BackpackSetup::remove(environment, true); },
        [this](BackpackSetup::Outcome outcome) {
            assign(m_backpackBusy, false, &AppModel::backpackBusyChanged);
            if (outcome && outcome->kind == BackpackSetup::Failure::Kind::Failed)
                showNote(QStringLiteral("Couldn’t remove Backpack mode’s permission. ") + outcome->sentence);
            read(false);
        });
}

// MARK: Dialogs

void AppModel::showDialog(GlassDialog dialog)
{
    assign(m_dialogWorking, false, &AppModel::dialogWorkingChanged);
    assign(m_dialog, std::optional<GlassDialog>(std::move(dialog)), &AppModel::dialogChanged);
}

void AppModel::confirmDialog(bool option)
{
    if (!m_dialog || m_dialogWorking)
        return;
    if (!m_dialog->confirm) {
        assign(m_dialog, std::nullopt, &AppModel::dialogChanged);
        return;
    }
    assign(m_dialogWorking, true, &AppModel::dialogWorkingChanged);
    // The work may end after another dialog took the slot; it closes only its own.
    const QUuid asked = m_dialog->id;
    m_dialog->confirm(option, [this, asked, guard = QPointer<AppModel>(this)](std::optional<QString> failure) {
        if (!guard || !m_dialog || m_dialog->id != asked)
            return;
        assign(m_dialogWorking, false, &AppModel::dialogWorkingChanged);
        assign(m_dialog, std::nullopt, &AppModel::dialogChanged);
        if (failure)
            showNote(*failure);
    });
}

void AppModel::cancelDialog()
{
    if (!m_dialog)
        return;
    const std::function<void()> cancel = m_dialog->cancel;
    assign(m_dialogWorking, false, &AppModel::dialogWorkingChanged);
    assign(m_dialog, std::nullopt, &AppModel::dialogChanged);
    if (cancel)
        cancel();
}

void AppModel::dialogSecondary()
{
    if (!m_dialog)
        return;
    const std::function<void()> action = m_dialog->secondaryAction;
    if (!action) {
        cancelDialog();
        return;
    }
    assign(m_dialog, std::nullopt, &AppModel::dialogChanged);
    action();
}

void AppModel::readDevices()
{
    if (m_sample)
        return;
    m_client->devices([this](DaemonResult<FlexList<Device>> result) {
        if (result.ok())
            assign(m_deviceList, std::move(result.value().items), &AppModel::deviceListChanged);
    });
}

void AppModel::refreshUsage()
{
    run<UsageReply>({DaemonClient::Method::Post, QStringLiteral("/v1/usage/refresh"), std::nullopt, 60}, std::nullopt,
        [this](UsageReply reply) {
            if (!reply.usage)
                return;
            setSnapshotPart([&reply](Snapshot& snapshot) {
                if (snapshot.usage == reply.usage)
                    return false;
                snapshot.usage = reply.usage;
                return true;
            });
        });
}

void AppModel::setCodexEnabled(bool on)
{
    run<Ignored>({DaemonClient::Method::Post, QStringLiteral("/local/settings"), setting("codex", on), 15},
        on ? QStringLiteral("Couldn’t turn Codex on. ") : QStringLiteral("Couldn’t turn Codex off. "),
        [this](Ignored) { read(false); });
}

void AppModel::refreshCodex()
{
    run<CodexReply>({DaemonClient::Method::Post, QStringLiteral("/v1/codex/refresh"), std::nullopt, 20}, std::nullopt,
        [this](CodexReply reply) {
            if (!reply.present)
                return;
            setSnapshotPart([&reply](Snapshot& snapshot) {
                if (snapshot.codex == reply.codex)
                    return false;
                snapshot.codex = reply.codex;
                return true;
            });
        });
}

void AppModel::setBuiltInTailscale(bool on)
{
    run<Ignored>({DaemonClient::Method::Post, QStringLiteral("/local/settings"), setting("builtInTailscale", on), 30},
        QStringLiteral("Couldn’t change that. "), [this](Ignored) { read(true); });
}

void AppModel::setBrowseOutsideProjects(bool on)
{
    run<Ignored>(
        {DaemonClient::Method::Post, QStringLiteral("/local/settings"), setting("browseOutsideProjects", on), 8},
        QStringLiteral("Couldn’t change Browse outside projects. "), [this, on](Ignored) {
            showNote(on ? QStringLiteral("Phones can open sessions’ folders in your home folder too, read only")
                        : QStringLiteral("Phones open only your projects folder again"));
            read(true);
        });
}

void AppModel::signOutTailscale()
{
    // A refusal is shown in the service's own words.
    run<LocalStatus>({DaemonClient::Method::Post, QStringLiteral("/local/tsnet/logout"), std::nullopt, 8}, QString(),
        [this](LocalStatus status) {
            assign(m_status, std::move(status), &AppModel::statusChanged);
            // The node takes a moment to settle; the read after shows where it went.
            QTimer::singleShot(kAfterSignOutMs, this, [this] { read(true); });
        });
}
