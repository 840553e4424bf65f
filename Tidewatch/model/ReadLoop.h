#pragma once

#include "base/Clock.h"
#include "link/DaemonClient.h"
#include "link/LiveFeed.h"
#include "model/ReadPace.h"

#include <QDateTime>
#include <QObject>

#include <functional>
#include <memory>
#include <optional>

class AppModel;
class QTimer;

/// The loop that keeps the model honest: it reads health, snapshot and the
/// local status at the pace ReadPace decides, and keeps the feed going. It
/// writes what it finds into the model it belongs to. Main thread only.
class ReadLoop : public QObject
{
    Q_OBJECT

public:
    ReadLoop(AppModel& model, DaemonClient& client, const Clock& clock, LiveFeed::Timing feedTiming);
    ~ReadLoop() override;

    /// Starts the feed and the loop, whose first read comes at once.
    void start();
    /// One read beside the loop's; `done`, when given, runs at its end.
    void read(bool withStatus, std::function<void()> done);
    /// A feed message on an incomplete picture asks for a read, at most every 2 seconds.
    void nudge();
    /// Opening reads at once (status included) and may ask for fresh usage.
    void popoverShown(bool visible);
    void take(const LiveFeed::Event& event);
    /// Closes the feed before the client goes, so no event comes in between.
    void stopFeed() { m_feed.reset(); }

    int reading() const { return m_reading; }
    const std::optional<QDateTime>& failingSince() const { return m_failingSince; }
    qint64 feedGeneration() const { return m_feedGeneration; }
    bool statusCountsFeed() const { return m_statusCountsFeed; }

private:
    ReadPace pace() const;
    std::optional<QDateTime> feedHeardAt() const;
    void turn();
    void cancelNap();
    /// Reads at once with the status, whatever the pace says.
    void readSoon();
    void afterHealth(bool withStatus, const std::optional<Health>& health, std::function<void()> done);
    void readStatusPart(bool withStatus, std::function<void()> done);
    /// The read's last steps after the service was asked for everything.
    void finishRead(bool serviceAnswered, const std::function<void()>& done);
    /// Every read's end, also one cut short.
    void endRead(const std::function<void()>& done);
    void lookForClaudeIfDue();
    void startFeed();

    AppModel& m_model;
    DaemonClient& m_client;
    const Clock& m_clock;
    LiveFeed::Timing m_feedTiming;
    std::unique_ptr<LiveFeed> m_feed;
    QTimer* m_nap;

    bool m_running = false;
    bool m_loopReading = false;
    bool m_readNow = false;
    bool m_statusNow = false;
    QDateTime m_lastRead = QDateTime::fromMSecsSinceEpoch(0, Qt::UTC);
    QDateTime m_lastStatus = QDateTime::fromMSecsSinceEpoch(0, Qt::UTC);
    std::optional<QDateTime> m_failingSince;
    int m_reading = 0;
    QDateTime m_lastNudge = QDateTime::fromMSecsSinceEpoch(0, Qt::UTC);
    bool m_feedStarted = false;
    qint64 m_feedGeneration = 0;
    bool m_statusCountsFeed = false;
    bool m_claudeLooking = false;
    QDateTime m_lastUsageAsk = QDateTime::fromMSecsSinceEpoch(0, Qt::UTC);
};
