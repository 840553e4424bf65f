#include "model/ReadLoop.h"

#include "link/ServiceCalls.h"
#include "model/Agents.h"
#include "model/AppModel.h"
#include "model/OffMainThread.h"

#include <QFileInfo>
#include <QTimer>

namespace {

int milliseconds(double seconds)
{
    return std::max(1, int(seconds * 1000));
}

} // namespace

ReadLoop::ReadLoop(AppModel& model, DaemonClient& client, const Clock& clock, LiveFeed::Timing feedTiming)
    : m_model(model)
    , m_client(client)
    , m_clock(clock)
    , m_feedTiming(feedTiming)
    , m_nap(new QTimer(this))
{
    m_nap->setSingleShot(true);
    m_nap->setTimerType(Qt::PreciseTimer);
    connect(m_nap, &QTimer::timeout, this, &ReadLoop::turn);
}

ReadLoop::~ReadLoop() = default;

void ReadLoop::start()
{
    if (!m_feedStarted) {
        m_feedStarted = true;
        startFeed();
    }
    if (m_running)
        return;
    m_running = true;
    m_readNow = true;
    m_statusNow = true;
    m_model.checkServiceUpdate();
    m_model.checkSDK();
    turn();
}

ReadPace ReadLoop::pace() const
{
    ReadPace pace;
    pace.failing = m_failingSince.has_value();
    pace.feedLive = m_model.m_feedLive;
    pace.popoverVisible = m_model.m_popoverVisible;
    pace.lastRead = m_lastRead;
    pace.lastStatus = m_lastStatus;
    pace.heardAt = feedHeardAt();
    return pace;
}

std::optional<QDateTime> ReadLoop::feedHeardAt() const
{
    return m_feed ? m_feed->heardAt() : std::nullopt;
}

void ReadLoop::turn()
{
    if (!m_running || m_loopReading)
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
    read(withStatus, [this] {
        m_loopReading = false;
        QMetaObject::invokeMethod(this, &ReadLoop::turn, Qt::QueuedConnection);
    });
}

void ReadLoop::cancelNap()
{
    // Cutting the sleep short is deciding again now; during a read the loop
    // decides again when it ends anyway.
    if (!m_nap->isActive())
        return;
    m_nap->stop();
    QMetaObject::invokeMethod(this, &ReadLoop::turn, Qt::QueuedConnection);
}

void ReadLoop::readSoon()
{
    m_readNow = true;
    m_statusNow = true;
    cancelNap();
}

void ReadLoop::read(bool withStatus, std::function<void()> done)
{
    ++m_reading;
    m_client.health(ServiceCalls::healthTimeout,
        [this, withStatus, done = std::move(done)](
            const std::optional<Health>& health) mutable { afterHealth(withStatus, health, std::move(done)); });
}

void ReadLoop::afterHealth(bool withStatus, const std::optional<Health>& health, std::function<void()> done)
{
    AppModel& model = m_model;
    const QDateTime now = m_clock.now();
    model.assign(model.m_serviceInstalled, QFileInfo::exists(model.m_environment.serviceUnitFile()),
        &AppModel::serviceInstalledChanged);

    if (!health && model.m_feedLive) {
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
            endRead(done);
            return;
        }
        model.setFeedLive(false);
        startFeed();
    }
    m_failingSince.reset();
    // The service has come back: its feed is tried at once rather than after the back-off.
    if (health && !model.m_health && model.m_firstPollDone && m_feedStarted && !model.m_feedLive)
        startFeed();
    model.assign(model.m_health, health, &AppModel::healthChanged);

    if (!health) {
        model.assign(model.m_snapshot, std::nullopt, &AppModel::snapshotChanged);
        model.assign(model.m_status, std::nullopt, &AppModel::statusChanged);
        model.assign(model.m_lastError, std::nullopt, &AppModel::lastErrorChanged);
        finishRead(false, done);
        return;
    }

    const qint64 generation = m_feedGeneration;
    ServiceCalls::snapshot().send(
        m_client, [this, generation, withStatus, done = std::move(done)](DaemonResult<Snapshot> result) mutable {
            AppModel& model = m_model;
            if (result.ok()) {
                // A reply that crossed a feed message is older than what the feed said.
                if (generation == m_feedGeneration
                    && model.assign(model.m_snapshot, std::move(result.value()), &AppModel::snapshotChanged))
                    model.pruneAnswered();
                model.assign(model.m_lastError, std::nullopt, &AppModel::lastErrorChanged);
                model.noteSignInProgress();
            } else {
                model.assign(model.m_lastError, result.error().errorDescription(), &AppModel::lastErrorChanged);
            }
            readStatusPart(withStatus, std::move(done));
        });
}

void ReadLoop::readStatusPart(bool withStatus, std::function<void()> done)
{
    if (!withStatus && m_model.m_status) {
        finishRead(true, done);
        return;
    }
    const bool feedLiveBefore = m_model.m_feedLive;
    ServiceCalls::localStatus().send(
        m_client, [this, feedLiveBefore, done = std::move(done)](DaemonResult<LocalStatus> result) mutable {
            if (result.ok()) {
                m_model.assign(m_model.m_status, std::move(result.value()), &AppModel::statusChanged);
                // With the feed live, the count of connected clients includes this app.
                m_statusCountsFeed = feedLiveBefore;
            }
            m_lastStatus = m_clock.now();
            if (m_model.m_feedLive != feedLiveBefore)
                readSoon();
            finishRead(true, done);
        });
}

void ReadLoop::finishRead(bool serviceAnswered, const std::function<void()>& done)
{
    lookForClaudeIfDue();
    m_model.checkServiceNode(serviceAnswered);
    endRead(done);
}

void ReadLoop::endRead(const std::function<void()>& done)
{
    m_lastRead = m_clock.now();
    m_model.assign(m_model.m_firstPollDone, true, &AppModel::firstPollDoneChanged);
    --m_reading;
    Q_EMIT m_model.readFinished();
    if (done)
        done();
}

void ReadLoop::lookForClaudeIfDue()
{
    AppModel& model = m_model;
    const std::optional<AppModel::ClaudeLook>& look = model.m_claudeLook;
    const Agents::Inputs inputs{model.m_snapshot, model.m_status, model.serviceUp(), false, false,
        look ? std::optional<bool>(look->found) : std::nullopt};
    const std::optional<QDateTime> lastLook = look ? std::optional(look->at) : std::nullopt;
    if (!model.m_lookForClaude
        || !ReadPace::claudeLookDue(Agents::serviceSaysNoClaude(inputs), m_claudeLooking, lastLook, m_clock.now()))
        return;
    m_claudeLooking = true;
    offMainThread<bool>(this, model.m_lookForClaude, [this](bool found) {
        m_claudeLooking = false;
        m_model.assign(m_model.m_claudeLook, AppModel::ClaudeLook{found, m_clock.now()}, &AppModel::claudeLookChanged);
    });
}

void ReadLoop::nudge()
{
    const QDateTime now = m_clock.now();
    if (!ReadPace::nudgeWanted(!m_model.m_health || !m_model.m_snapshot, m_reading, m_lastNudge, now))
        return;
    m_lastNudge = now;
    m_readNow = true;
    cancelNap();
}

void ReadLoop::popoverShown(bool visible)
{
    if (visible) {
        m_readNow = true;
        m_statusNow = true;
    }
    cancelNap();
    if (!visible)
        return;
    const QDateTime now = m_clock.now();
    const std::optional<Usage> usage = m_model.m_snapshot ? m_model.m_snapshot->usage : std::nullopt;
    if (m_model.serviceUp() && ReadPace::usageRefreshWanted(usage, m_lastUsageAsk, now)) {
        m_lastUsageAsk = now;
        m_model.refreshUsage();
    }
}

void ReadLoop::startFeed()
{
    if (!m_feed) {
        m_feed = std::make_unique<LiveFeed>(m_model.m_environment, m_clock, m_feedTiming);
        m_feed->setSink([this](const LiveFeed::Event& event) { take(event); });
    }
    m_feed->start();
}

void ReadLoop::take(const LiveFeed::Event& event)
{
    if (event.kind == LiveFeed::Event::Kind::Live) {
        if (event.live == m_model.m_feedLive)
            return;
        m_model.setFeedLive(event.live);
        if (!event.live) {
            m_failingSince.reset();
            m_readNow = true;
        }
        cancelNap();
        return;
    }
    if (!event.message)
        return;
    if (std::holds_alternative<Feed::DevicesChanged>(*event.message)) {
        readSoon();
        return;
    }
    // Counted before the patch: a snapshot read in flight now carries older news.
    ++m_feedGeneration;
    m_model.takeMessage(*event.message);
    nudge();
}
