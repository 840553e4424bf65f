#include "link/LiveFeed.h"

#include "link/DaemonClient.h"

#include <QNetworkProxy>
#include <QNetworkRequest>
#include <QTimer>
#include <QWebSocket>

namespace {

constexpr qint64 kMaxMessageBytes = qint64(64) * 1024 * 1024; // a whole snapshot can be large
constexpr int kCloseGraceMs = 2000; // a silent peer gets this long to answer a close

int milliseconds(double seconds)
{
    return std::max(1, int(seconds * 1000));
}

} // namespace

/// One run of connections for one epoch: connect, receive until the link
/// ends, pause, connect again. Lives on the feed's thread and touches nothing
/// of the feed but its locked calls.
class FeedRunner : public QObject
{
public:
    FeedRunner(LiveFeed* feed, qint64 epoch)
        : m_feed(feed)
        , m_epoch(epoch)
        , m_retry(new QTimer(this))
        , m_watchdog(new QTimer(this))
    {
        // Children, so that they move to the feed's thread with the runner.
        m_retry->setSingleShot(true);
        connect(m_retry, &QTimer::timeout, this, &FeedRunner::connectOnce);
        connect(m_watchdog, &QTimer::timeout, this, &FeedRunner::checkSilence);
    }

    void begin()
    {
        m_delay = m_feed->m_timing.firstDelay;
        connectOnce();
    }

    void cancel()
    {
        m_cancelled = true;
        m_retry->stop();
        m_watchdog->stop();
        if (m_socket) {
            m_socket->disconnect(this);
            // A socket still connecting has no one to say goodbye to.
            if (m_socket->state() == QAbstractSocket::ConnectedState)
                m_socket->close(QWebSocketProtocol::CloseCodeNormal);
            else
                m_socket->abort();
        }
        finishConnection(false);
        deleteLater();
    }

private:
    void connectOnce()
    {
        if (m_cancelled)
            return;
        m_heard = false;
        m_ended = false;
        const std::optional<QString> token = DaemonClient::readToken(m_feed->m_environment);
        if (!token) {
            // Without a key there is nothing to try: the connection ends unheard.
            scheduleNext();
            return;
        }
        m_socket = new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, this);
        m_socket->setProxy(QNetworkProxy::NoProxy);
        m_socket->setMaxAllowedIncomingMessageSize(kMaxMessageBytes);
        connect(m_socket, &QWebSocket::textMessageReceived, this, [this](const QString& text) { onText(text); });
        connect(m_socket, &QWebSocket::binaryMessageReceived, this, [this](const QByteArray&) { onFrame(); });
        connect(m_socket, &QWebSocket::stateChanged, this, [this](QAbstractSocket::SocketState state) {
            if (state == QAbstractSocket::UnconnectedState)
                onEnded();
        });
        m_at = m_feed->m_clock.now();
        m_watchdog->start(milliseconds(m_feed->m_timing.watchdogEvery));

        QNetworkRequest request{QUrl(m_feed->m_environment.feedUrl())};
        request.setRawHeader(QByteArrayLiteral("Authorization"), QByteArrayLiteral("Bearer ") + token->toUtf8());
        request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
        request.setTransferTimeout(60000);
        m_socket->open(request);
    }

    void onFrame()
    {
        const QDateTime now = m_feed->m_clock.now();
        m_at = now;
        m_feed->heard(m_epoch, now);
        if (!m_heard) {
            m_heard = true;
            m_feed->post(m_epoch, {LiveFeed::Event::Kind::Live, true, std::nullopt});
        }
    }

    void onText(const QString& text)
    {
        onFrame();
        const QByteArray bytes = text.toUtf8();
        Feed::Frame frame = Feed::readFrame(bytes);
        switch (frame.kind) {
        case Feed::Frame::Kind::Ping:
            m_socket->sendTextMessage(QString::fromLatin1(Feed::pong.data(), Feed::pong.size()));
            m_feed->postPong(m_epoch);
            break;
        case Feed::Frame::Kind::Window:
            m_feed->postRaw(m_epoch, true, bytes);
            break;
        case Feed::Frame::Kind::Speech:
            m_feed->postRaw(m_epoch, false, bytes);
            break;
        case Feed::Frame::Kind::Message:
            if (frame.message)
                m_feed->post(m_epoch, {LiveFeed::Event::Kind::Message, false, std::move(frame.message)});
            break;
        }
    }

    void checkSilence()
    {
        if (!m_socket || m_at.msecsTo(m_feed->m_clock.now()) <= qint64(m_feed->m_timing.silenceLimit * 1000))
            return;
        m_socket->close(QWebSocketProtocol::CloseCodeGoingAway);
        // A peer that stays silent doesn't answer the close either.
        QPointer<QWebSocket> socket = m_socket;
        QTimer::singleShot(kCloseGraceMs, this, [socket] {
            if (socket)
                socket->abort();
        });
    }

    void onEnded()
    {
        if (m_ended || m_cancelled)
            return;
        finishConnection(true);
        scheduleNext();
    }

    // The end of one connection: the watchdog stops, heardAt clears, and a
    // link that was heard reports that it is gone.
    void finishConnection(bool report)
    {
        if (m_ended)
            return;
        m_ended = true;
        m_watchdog->stop();
        if (m_socket) {
            m_socket->disconnect(this);
            m_socket->deleteLater();
            m_socket = nullptr;
        }
        m_feed->ended(m_epoch);
        if (report && m_heard)
            m_feed->post(m_epoch, {LiveFeed::Event::Kind::Live, false, std::nullopt});
    }

    void scheduleNext()
    {
        const LiveFeed::Pause pause = LiveFeed::pause(m_heard, m_delay, m_feed->m_timing);
        m_delay = pause.nextDelay;
        m_retry->start(milliseconds(pause.sleep));
    }

    LiveFeed* m_feed;
    const qint64 m_epoch;
    QWebSocket* m_socket = nullptr;
    QTimer* m_retry;
    QTimer* m_watchdog;
    QDateTime m_at; // the last frame, or the connection's start: what the watchdog reads
    double m_delay = 1;
    bool m_heard = false;
    bool m_ended = true;
    bool m_cancelled = false;
};

LiveFeed::LiveFeed(Environment environment, const Clock& clock, Timing timing, QObject* parent)
    : QObject(parent)
    , m_environment(std::move(environment))
    , m_clock(clock)
    , m_timing(timing)
{
    m_thread.setObjectName(QStringLiteral("tidewatch.feed"));
}

LiveFeed::~LiveFeed()
{
    {
        QMutexLocker locker(&m_lock);
        ++m_epoch;
        if (m_runner)
            QMetaObject::invokeMethod(m_runner, &FeedRunner::cancel, Qt::QueuedConnection);
        m_runner = nullptr;
    }
    m_thread.quit();
    m_thread.wait();
}

LiveFeed::Pause LiveFeed::pause(bool heard, double delay, const Timing& timing)
{
    if (heard)
        return {timing.afterHeard, std::min(2.0 * timing.firstDelay, timing.maxDelay)};
    return {delay, std::min(2.0 * delay, timing.maxDelay)};
}

void LiveFeed::start()
{
    if (!m_thread.isRunning())
        m_thread.start();
    QMutexLocker locker(&m_lock);
    ++m_epoch;
    if (m_runner)
        QMetaObject::invokeMethod(m_runner, &FeedRunner::cancel, Qt::QueuedConnection);
    m_heardAt.reset();
    auto* runner = new FeedRunner(this, m_epoch);
    runner->moveToThread(&m_thread);
    m_runner = runner;
    QMetaObject::invokeMethod(runner, &FeedRunner::begin, Qt::QueuedConnection);
}

std::optional<QDateTime> LiveFeed::heardAt() const
{
    QMutexLocker locker(&m_lock);
    return m_heardAt;
}

bool LiveFeed::isCurrent(qint64 epoch) const
{
    QMutexLocker locker(&m_lock);
    return epoch == m_epoch;
}

void LiveFeed::heard(qint64 epoch, const QDateTime& at)
{
    QMutexLocker locker(&m_lock);
    if (epoch == m_epoch)
        m_heardAt = at;
}

void LiveFeed::ended(qint64 epoch)
{
    QMutexLocker locker(&m_lock);
    if (epoch == m_epoch)
        m_heardAt.reset();
}

void LiveFeed::post(qint64 epoch, Event event)
{
    // Checked again on arrival: a start() in between makes the event stale.
    QMetaObject::invokeMethod(
        this,
        [this, epoch, event = std::move(event)] {
            if (isCurrent(epoch) && m_sink)
                m_sink(event);
        },
        Qt::QueuedConnection);
}

void LiveFeed::postRaw(qint64 epoch, bool window, QByteArray text)
{
    QMetaObject::invokeMethod(
        this,
        [this, epoch, window, text = std::move(text)] {
            if (!isCurrent(epoch))
                return;
            const auto& sink = window ? m_windowSink : m_speechSink;
            if (sink)
                sink(text);
        },
        Qt::QueuedConnection);
}

void LiveFeed::postPong(qint64 epoch)
{
    QMetaObject::invokeMethod(
        this,
        [this, epoch] {
            if (isCurrent(epoch) && m_pongSink)
                m_pongSink();
        },
        Qt::QueuedConnection);
}
