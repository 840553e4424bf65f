#pragma once

#include "base/Clock.h"
#include "entry/Environment.h"
#include "link/FeedMessage.h"

#include <QDateTime>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QThread>

#include <functional>
#include <optional>

class FeedRunner;

/// The feed's times, in seconds. Tests shorten them.
struct FeedTiming {
    double watchdogEvery = 20;
    double silenceLimit = 70;
    double firstDelay = 1;
    double afterHeard = 1;
    double maxDelay = 30;
};

/// The app's ear on the service: one WebSocket, kept open for the life of the
/// program, on which the service pushes every change. The connection runs on a
/// thread of its own (a large snapshot decodes there); events reach the sink on
/// the thread that owns the feed, and only while their connection is current.
class LiveFeed : public QObject
{
    Q_OBJECT

public:
    using Timing = FeedTiming;

    /// The link came up (first frame) or went down, or a message arrived.
    struct Event {
        enum class Kind { Live, Message };
        Kind kind = Kind::Live;
        bool live = false;
        std::optional<Feed::Message> message;
    };

    explicit LiveFeed(
        Environment environment, const Clock& clock = Clock::system(), Timing timing = {}, QObject* parent = nullptr);
    ~LiveFeed() override;

    void setSink(std::function<void(const Event&)> sink) { m_sink = std::move(sink); }
    /// Window picture requests, as their raw text.
    void setWindowSink(std::function<void(const QByteArray&)> sink) { m_windowSink = std::move(sink); }
    /// Speaking state frames, as their raw text.
    void setSpeechSink(std::function<void(const QByteArray&)> sink) { m_speechSink = std::move(sink); }
    /// Told after each ping was answered; for the feed's self-check.
    void setPongSink(std::function<void()> sink) { m_pongSink = std::move(sink); }

    /// Starts a new connection, ending the one before: the single way to
    /// force a reconnect. May be called at any time.
    void start();

    /// When the current connection last heard a frame; none while nothing
    /// was heard or after the link closed.
    std::optional<QDateTime> heardAt() const;

    /// After a connection ends: how long to wait, and the delay after that.
    /// A link that worked comes back after a second; a refused one backs off
    /// 1, 2, 4, 8, 16, 30, 30 seconds.
    struct Pause {
        double sleep;
        double nextDelay;
    };
    static Pause pause(bool heard, double delay, const Timing& timing);

private:
    friend class FeedRunner;
    // Called from the connection's thread.
    void heard(qint64 epoch, const QDateTime& at);
    void ended(qint64 epoch);
    void post(qint64 epoch, Event event);
    void postRaw(qint64 epoch, bool window, QByteArray text);
    void postPong(qint64 epoch);
    bool isCurrent(qint64 epoch) const;

    Environment m_environment;
    const Clock& m_clock;
    Timing m_timing;
    QThread m_thread;

    mutable QMutex m_lock; // guards m_epoch, m_runner and m_heardAt
    qint64 m_epoch = 0;
    QPointer<FeedRunner> m_runner;
    std::optional<QDateTime> m_heardAt;

    std::function<void(const Event&)> m_sink;
    std::function<void(const QByteArray&)> m_windowSink;
    std::function<void(const QByteArray&)> m_speechSink;
    std::function<void()> m_pongSink;
};
