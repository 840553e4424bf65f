// How much the feed path carries, from the socket to the patched model: a
// local WebSocket server on its own thread plays the service, sends a snapshot
// of 500 sessions, then a stream of `session` messages, each the whole session
// as the service sends it. Prints the frames per second the path sustains
// (server sending flat out, model patching each), and the time from a frame
// leaving the server to the model holding it, one frame at a time: a session's
// frame in the snapshot, and an approval's frame at the head of `needsYou`.
//
// With --played the real service plays the other side instead, under a load
// of Claude Code sessions driven through its hook route (PlayedLoad.cpp):
//
//   bench_feed --played [--sessions 500] [--calls 10] [--rate 0 (events/s, 0 as fast as it takes them)]

#include "PlayedLoad.h"

#include "../BenchSupport.h"
#include "base/Clock.h"
#include "entry/Environment.h"
#include "link/LiveFeed.h"
#include "model/AppModel.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QWebSocket>
#include <QWebSocketServer>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

namespace {

using bench::claudeFixture;
using bench::percentile;
using bench::steadyNanos;
using bench::waitUntil;

constexpr int kSessions = 500;
constexpr int kBurst = 20000;
constexpr int kRounds = 3;
constexpr int kLatencySamples = 2000;

QJsonObject session(int index, int version, const QString& lastText)
{
    const QString project = QStringLiteral("project-%1").arg(index % 37);
    return QJsonObject{
        {QStringLiteral("id"), QStringLiteral("s%1").arg(index)},
        {QStringLiteral("title"), QStringLiteral("Fix the flaky upload test %1").arg(index)},
        {QStringLiteral("cwd"), QStringLiteral("/Users/someone/Projects/") + project},
        {QStringLiteral("projectName"), project},
        {QStringLiteral("origin"), QStringLiteral("terminal")},
        {QStringLiteral("state"), version % 2 ? QStringLiteral("working") : QStringLiteral("idle")},
        {QStringLiteral("model"), QStringLiteral("opus")},
        {QStringLiteral("createdAt"), 1760000000000.0 + index},
        {QStringLiteral("lastActivityAt"), 1760000000000.0 + index + version},
        {QStringLiteral("activity"), QStringLiteral("Running the tests")},
        {QStringLiteral("lastText"), lastText},
        {QStringLiteral("queued"), 0},
        {QStringLiteral("pendingApprovalIds"), QJsonArray{}},
        {QStringLiteral("term"),
            QJsonObject{{QStringLiteral("id"), QStringLiteral("t%1").arg(index)}, {QStringLiteral("mac"), 1},
                {QStringLiteral("phone"), 0}}},
    };
}

QString frame(const QString& type, const QJsonObject& payload)
{
    return QString::fromUtf8(
        QJsonDocument(QJsonObject{{QStringLiteral("t"), type}, {type, payload}}).toJson(QJsonDocument::Compact));
}

/// Plays the service: accepts the feed and sends what it is told to.
class FakeService : public QObject
{
public:
    FakeService()
        : m_server(new QWebSocketServer(QStringLiteral("bench"), QWebSocketServer::NonSecureMode, this))
    {
        connect(m_server, &QWebSocketServer::newConnection, this, [this] {
            m_client = m_server->nextPendingConnection();
            m_client->setParent(this);
            QJsonArray sessions;
            for (int i = 0; i < kSessions; ++i)
                sessions.append(session(i, 0, QStringLiteral("Started.")));
            const QJsonObject snapshot{
                {QStringLiteral("sessions"), sessions}, {QStringLiteral("approvals"), QJsonArray{}}};
            m_client->sendTextMessage(frame(QStringLiteral("snapshot"), snapshot));
        });
    }

    quint16 listen()
    {
        m_server->listen(QHostAddress::LocalHost, 0);
        return m_server->serverPort();
    }

    /// Built ahead of the clock, so the figure is the receiving side's and not the JSON writer's.
    void prepareBurst(int round)
    {
        m_frames.clear();
        m_frames.reserve(kBurst);
        for (int i = 0; i < kBurst; ++i) {
            m_frames << frame(QStringLiteral("session"),
                session(i % kSessions, round * kBurst + i + 1, QStringLiteral("Step %1").arg(i)));
        }
    }

    void sendBurst()
    {
        for (const QString& text : std::as_const(m_frames))
            m_client->sendTextMessage(text);
        m_client->flush();
    }

    void sendStamped(int sample)
    {
        const QString stamp = QString::number(steadyNanos());
        m_client->sendTextMessage(
            frame(QStringLiteral("session"), session(sample % kSessions, 1000000 + sample, stamp)));
        m_client->flush();
    }

    /// An approval whose id carries the moment it left.
    void sendApproval(int sample)
    {
        const QJsonObject approval{{QStringLiteral("id"), QStringLiteral("a%1-%2").arg(sample).arg(steadyNanos())},
            {QStringLiteral("sessionId"), QStringLiteral("s%1").arg(sample % kSessions)},
            {QStringLiteral("kind"), QStringLiteral("tool")}, {QStringLiteral("toolName"), QStringLiteral("Bash")},
            {QStringLiteral("createdAt"), 1760000000000.0 - sample}};
        m_client->sendTextMessage(frame(QStringLiteral("approval"), approval));
        m_client->flush();
    }

private:
    QWebSocketServer* m_server;
    QWebSocket* m_client = nullptr;
    QStringList m_frames;
};

int unusedPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList args = application.arguments();
    if (args.contains(QLatin1StringView("--played"))) {
        int sessions = kSessions;
        int calls = 10;
        double rate = 0;
        for (int i = 1; i + 1 < args.size(); ++i) {
            if (args[i] == QLatin1StringView("--sessions"))
                sessions = std::max(1, args[i + 1].toInt());
            else if (args[i] == QLatin1StringView("--calls"))
                calls = std::max(1, args[i + 1].toInt());
            else if (args[i] == QLatin1StringView("--rate"))
                rate = std::max(0.0, args[i + 1].toDouble());
        }
        return runPlayedLoad(sessions, calls, rate);
    }

    QThread serviceThread;
    serviceThread.start();
    auto* service = new FakeService;
    service->moveToThread(&serviceThread);
    quint16 port = 0;
    QMetaObject::invokeMethod(
        service, [&] { port = service->listen(); }, Qt::BlockingQueuedConnection);

    QTemporaryDir support;
    QFile token(support.filePath(QStringLiteral("admin-token")));
    if (!token.open(QIODevice::WriteOnly) || token.write("bench") < 0) {
        std::puts("FAILED: couldn't write the admin key for the fake service.");
        return 1;
    }
    token.close();
    const Environment environment({{QStringLiteral("TIDEWATCH_SUPPORT"), support.path()},
                                      {QStringLiteral("TIDEWATCH_API_PORT"), QString::number(port)},
                                      {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QString::number(unusedPort())}},
        support.path());

    // The model's own loop would ask a service that isn't there; the feed is
    // wired to it as the model wires its own.
    AppModel model(environment, Clock::system());
    qint64 changedAt = 0;
    QObject::connect(&model, &AppModel::snapshotChanged, [&changedAt] { changedAt = steadyNanos(); });
    LiveFeed feed(environment);
    feed.setSink([&model](const LiveFeed::Event& event) { model.take(event); });
    feed.start();
    if (!waitUntil([&] { return model.snapshot() && model.snapshot()->sessions.items.size() == kSessions; }, 10000)) {
        std::puts("FAILED: the snapshot never reached the model.");
        return 1;
    }
    std::printf("feed bench: snapshot of %d sessions, %d session frames a round\n", kSessions, kBurst);

    std::vector<double> rates;
    for (int round = 0; round < kRounds; ++round) {
        QMetaObject::invokeMethod(
            service, [service, round] { service->prepareBurst(round); }, Qt::BlockingQueuedConnection);
        const qint64 target = model.feedGeneration() + kBurst;
        QElapsedTimer elapsed;
        elapsed.start();
        QMetaObject::invokeMethod(service, [service] { service->sendBurst(); });
        if (!waitUntil([&] { return model.feedGeneration() >= target; }, 120000)) {
            std::puts("FAILED: a burst didn't reach the model.");
            return 1;
        }
        const double seconds = double(elapsed.nsecsElapsed()) / 1e9;
        rates.push_back(kBurst / seconds);
        std::printf("  round %d: %d frames in %.3f s, %.0f frames/s\n", round + 1, kBurst, seconds, kBurst / seconds);
    }
    std::printf("throughput, socket to patched model: median %.0f frames/s\n", percentile(rates, 0.5));

    std::vector<double> latencies;
    latencies.reserve(kLatencySamples);
    for (int sample = 0; sample < kLatencySamples; ++sample) {
        const QString id = QStringLiteral("s%1").arg(sample % kSessions);
        const qint64 target = model.feedGeneration() + 1;
        QMetaObject::invokeMethod(service, [service, sample] { service->sendStamped(sample); });
        if (!waitUntil([&] { return model.feedGeneration() >= target; }, 5000)) {
            std::puts("FAILED: a frame didn't reach the model.");
            return 1;
        }
        const qint64 held = changedAt;
        const auto& sessions = model.snapshot()->sessions.items;
        const auto found
            = std::find_if(sessions.begin(), sessions.end(), [&id](const Session& s) { return s.id == id; });
        if (found == sessions.end() || !found->lastText) {
            std::puts("FAILED: the model lost a session.");
            return 1;
        }
        latencies.push_back(double(held - found->lastText->toLongLong()) / 1000.0);
    }
    std::printf("latency, frame sent to model holding it (%d frames, one at a time): median %.0f us, p95 %.0f us, "
                "max %.0f us\n",
        kLatencySamples, percentile(latencies, 0.5), percentile(latencies, 0.95),
        *std::max_element(latencies.begin(), latencies.end()));

    // Each approval is older than the last, so it sorts first the moment the model holds it.
    std::vector<double> attention;
    attention.reserve(kLatencySamples);
    for (int sample = 0; sample < kLatencySamples; ++sample) {
        const QString prefix = QStringLiteral("a%1-").arg(sample);
        qint64 heldAt = 0;
        const QMetaObject::Connection watch = QObject::connect(&model, &AppModel::snapshotChanged, [&] {
            if (!heldAt) {
                const QList<NeedsYouItem> items = model.needsYou();
                if (!items.isEmpty() && items.first().approval().id.startsWith(prefix))
                    heldAt = steadyNanos();
            }
        });
        QMetaObject::invokeMethod(service, [service, sample] { service->sendApproval(sample); });
        const bool held = waitUntil([&] { return heldAt != 0; }, 5000);
        QObject::disconnect(watch);
        if (!held) {
            std::puts("FAILED: an approval never reached needsYou.");
            return 1;
        }
        const QString id = model.needsYou().first().approval().id;
        attention.push_back(double(heldAt - id.mid(prefix.size()).toLongLong()) / 1000.0);
    }
    std::printf("latency, approval frame sent to the head of needsYou (%d frames, one at a time): median %.0f us, "
                "p95 %.0f us, max %.0f us\n",
        kLatencySamples, percentile(attention, 0.5), percentile(attention, 0.95),
        *std::max_element(attention.begin(), attention.end()));

    QMetaObject::invokeMethod(
        service, [service] { delete service; }, Qt::BlockingQueuedConnection);
    serviceThread.quit();
    serviceThread.wait();
    return 0;
}
