// The feed under a played load: many Claude Code sessions driven through the
// real service's hook route (POST /claude/hook, the payloads Claude Code
// sends, from daemon/test/fixtures/claude), each with a transcript that grows
// as Claude Code's does, while the app's LiveFeed and AppModel receive what
// the service sends. Every session starts, takes a prompt, makes its tool
// calls (PreToolUse, then PostToolUse) and stops; the sessions take turns.
//
// Prints the rate the hook route took, the frames a second the model took,
// the time from a hook event posted to the model holding it (each tool
// call's command carries the moment it was posted), the model's own time per
// frame, and the service's CPU and resident memory over the load.

#include "PlayedLoad.h"

#include "../BenchSupport.h"
#include "ScratchFolder.h"
#include "ServiceProcess.h"
#include "base/Clock.h"
#include "link/LiveFeed.h"
#include "model/AppModel.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QSet>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <vector>

#include <unistd.h>

namespace {

using bench::claudeFixture;
using bench::percentile;
using bench::steadyNanos;
using bench::waitUntil;

/// Requests in flight at once; Qt opens at most six connections to one host.
constexpr int kLanes = 6;

QString sessionId(int index)
{
    return QStringLiteral("b3c1e0de-0000-4000-8000-%1").arg(index, 12, 10, QLatin1Char('0'));
}

/// The service's own CPU seconds and resident memory, from /proc.
struct ProcessFigures {
    double cpuSeconds = 0;
    double residentMb = 0;
};

ProcessFigures processFigures(qint64 pid)
{
    ProcessFigures figures;
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (stat.open(QIODevice::ReadOnly)) {
        const QByteArray text = stat.readAll();
        // After the command's name: state is the first field, utime the 12th, stime the 13th.
        const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 12)
            figures.cpuSeconds
                = double(fields.at(11).toLongLong() + fields.at(12).toLongLong()) / double(sysconf(_SC_CLK_TCK));
    }
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (status.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : status.readAll().split('\n')) {
            if (line.startsWith("VmRSS:"))
                figures.residentMb = line.mid(6).trimmed().split(' ').value(0).toDouble() / 1024;
        }
    }
    return figures;
}

/// Plays Claude Code: posts the hook events of every session in turn, and
/// writes each session's transcript as it goes, on a thread of its own.
class Driver : public QObject
{
public:
    Driver(int sessions, int calls, double rate, int port, QByteArray token, QString folder)
        : m_sessions(sessions)
        , m_calls(calls)
        , m_rate(rate)
        , m_port(port)
        , m_token(std::move(token))
        , m_folder(std::move(folder))
        , m_start(claudeFixture(QStringLiteral("session-start.json")))
        , m_prompt(claudeFixture(QStringLiteral("user-prompt-submit.json")))
        , m_pre(claudeFixture(QStringLiteral("pre-tool-use-bash.json")))
        , m_post(claudeFixture(QStringLiteral("post-tool-use-bash.json")))
        , m_stop(claudeFixture(QStringLiteral("stop.json")))
    {
    }

    /// Every session's events: start, prompt, a call's two reports per call, stop.
    int steps() const { return 3 + 2 * m_calls; }
    int events() const { return m_sessions * steps(); }

    void begin()
    {
        m_network = new QNetworkAccessManager(this);
        m_network->setProxy(QNetworkProxy::NoProxy);
        m_begun = steadyNanos();
        for (int lane = 0; lane < kLanes; ++lane)
            next();
    }

    std::atomic<bool> finished{false};
    std::atomic<int> refused{0};
    std::atomic<qint64> endedAt{0};
    std::vector<double> replyMs; ///< read only once finished

private:
    void next()
    {
        if (m_next >= events()) {
            if (m_inFlight == 0 && !finished) {
                endedAt = steadyNanos();
                finished = true;
            }
            return;
        }
        const int k = m_next++;
        ++m_inFlight;
        const qint64 due = m_rate > 0 ? m_begun + qint64(double(k) * 1e9 / m_rate) : 0;
        const qint64 wait = (due - steadyNanos()) / 1000000;
        if (wait > 0)
            QTimer::singleShot(int(wait), this, [this, k] { send(k); });
        else
            send(k);
    }

    void append(const QString& session, const QJsonObject& record)
    {
        QFile file(transcript(session));
        if (file.open(QIODevice::Append))
            file.write(QJsonDocument(record).toJson(QJsonDocument::Compact) + '\n');
    }

    QString transcript(const QString& session) const { return m_folder + QStringLiteral("/%1.jsonl").arg(session); }

    QJsonObject event(int k)
    {
        const int index = k % m_sessions;
        const int step = k / m_sessions;
        const QString id = sessionId(index);
        QJsonObject payload;
        if (step == 0) {
            payload = m_start;
        } else if (step == 1) {
            payload = m_prompt;
            payload.insert(QStringLiteral("prompt"), QStringLiteral("Fix the flaky upload test %1").arg(index));
        } else if (step < steps() - 1) {
            const int call = (step - 2) / 2;
            const QString use = QStringLiteral("toolu_%1_%2").arg(index).arg(call);
            const bool before = (step - 2) % 2 == 0;
            payload = before ? m_pre : m_post;
            QJsonObject input = payload.value(QLatin1StringView("tool_input")).toObject();
            if (before) {
                // The moment it leaves rides on the command, and so on the session's activity.
                input.insert(QStringLiteral("command"),
                    QStringLiteral("npm test -- --shard %1 #%2").arg(call).arg(steadyNanos()));
                m_inputs.insert(use, input);
            } else {
                input = m_inputs.take(use);
            }
            payload.insert(QStringLiteral("tool_input"), input);
            payload.insert(QStringLiteral("tool_use_id"), use);
            if (before) {
                append(id,
                    QJsonObject{{QStringLiteral("type"), QStringLiteral("assistant")},
                        {QStringLiteral("message"),
                            QJsonObject{{QStringLiteral("role"), QStringLiteral("assistant")},
                                {QStringLiteral("model"), QStringLiteral("claude-sonnet-4-5")},
                                {QStringLiteral("content"),
                                    QJsonArray{QJsonObject{{QStringLiteral("type"), QStringLiteral("text")},
                                                   {QStringLiteral("text"), QStringLiteral("Running the tests.")}},
                                        QJsonObject{{QStringLiteral("type"), QStringLiteral("tool_use")},
                                            {QStringLiteral("id"), use},
                                            {QStringLiteral("name"), QStringLiteral("Bash")},
                                            {QStringLiteral("input"), input}}}}}}});
            } else {
                append(id,
                    QJsonObject{{QStringLiteral("type"), QStringLiteral("user")},
                        {QStringLiteral("message"),
                            QJsonObject{{QStringLiteral("role"), QStringLiteral("user")},
                                {QStringLiteral("content"),
                                    QJsonArray{QJsonObject{{QStringLiteral("type"), QStringLiteral("tool_result")},
                                        {QStringLiteral("tool_use_id"), use},
                                        {QStringLiteral("content"), QStringLiteral("ok")},
                                        {QStringLiteral("is_error"), false}}}}}}});
            }
        } else {
            payload = m_stop;
            payload.insert(QStringLiteral("last_assistant_message"), QStringLiteral("Done %1.").arg(index));
        }
        payload.insert(QStringLiteral("session_id"), id);
        payload.insert(QStringLiteral("transcript_path"), transcript(id));
        payload.insert(QStringLiteral("cwd"), QStringLiteral("/home/someone/projects/p%1").arg(index % 40));
        return payload;
    }

    void send(int k)
    {
        const QByteArray body = QJsonDocument(event(k)).toJson(QJsonDocument::Compact);
        QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1/claude/hook").arg(m_port)));
        request.setRawHeader("Authorization", "Bearer " + m_token);
        request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
        const qint64 sent = steadyNanos();
        QNetworkReply* reply = m_network->post(request, body);
        connect(reply, &QNetworkReply::finished, this, [this, reply, sent] {
            replyMs.push_back(double(steadyNanos() - sent) / 1e6);
            if (reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() != 200)
                ++refused;
            reply->deleteLater();
            --m_inFlight;
            next();
        });
    }

    const int m_sessions;
    const int m_calls;
    const double m_rate;
    const int m_port;
    const QByteArray m_token;
    const QString m_folder;
    const QJsonObject m_start;
    const QJsonObject m_prompt;
    const QJsonObject m_pre;
    const QJsonObject m_post;
    const QJsonObject m_stop;
    QHash<QString, QJsonObject> m_inputs;
    QNetworkAccessManager* m_network = nullptr;
    qint64 m_begun = 0;
    int m_next = 0;
    int m_inFlight = 0;
};

} // namespace

int runPlayedLoad(int sessions, int calls, double rate)
{
    ScratchFolder scratch;
    ServiceProcess service(scratch.path());
    if (!service.start()) {
        std::printf("FAILED: the service didn't start: %s\n", qPrintable(service.lastError()));
        return 1;
    }
    QFile address(service.supportFolder() + QStringLiteral("/claude-hook.json"));
    const qint64 pid = address.open(QIODevice::ReadOnly)
        ? QJsonDocument::fromJson(address.readAll()).object().value(QLatin1StringView("pid")).toInteger()
        : 0;
    if (pid <= 0) {
        std::puts("FAILED: the service didn't say where it runs.");
        return 1;
    }
    const QString transcripts = scratch.path() + QStringLiteral("/transcripts");
    QDir().mkpath(transcripts);

    // The app's side, wired as the model wires its own feed; its read loop stays off.
    AppModel model(service.environment(), Clock::system());
    LiveFeed feed(service.environment());
    qint64 frames = 0;
    qint64 sessionFrames = 0;
    qint64 lastFrameAt = 0;
    std::vector<double> patchUs;
    std::vector<double> postedToModelMs;
    QSet<qint64> stamps;
    feed.setSink([&](const LiveFeed::Event& event) {
        const qint64 handed = steadyNanos();
        qint64 stamp = 0;
        if (event.message) {
            ++frames;
            if (const Session* session = std::get_if<Session>(&*event.message)) {
                ++sessionFrames;
                const qsizetype mark = session->activity ? session->activity->lastIndexOf(QLatin1StringView(" #")) : -1;
                if (mark >= 0)
                    stamp = session->activity->mid(mark + 2).toLongLong();
            }
        }
        model.take(event);
        const qint64 held = steadyNanos();
        lastFrameAt = held;
        if (event.message)
            patchUs.push_back(double(held - handed) / 1000.0);
        if (stamp > 0 && !stamps.contains(stamp)) {
            stamps.insert(stamp);
            postedToModelMs.push_back(double(held - stamp) / 1e6);
        }
    });
    feed.start();
    if (!waitUntil([&] { return model.snapshot().has_value(); }, 15000)) {
        std::puts("FAILED: the feed never brought the snapshot.");
        return 1;
    }

    QThread driverThread;
    driverThread.start();
    auto* driver = new Driver(sessions, calls, rate, service.localPort(), service.token().toUtf8(), transcripts);
    driver->moveToThread(&driverThread);
    std::printf("played load: %d sessions x %d tool calls = %d hook events through POST /claude/hook, %s\n", sessions,
        calls, driver->events(),
        rate > 0 ? qPrintable(QStringLiteral("paced at %1 events/s").arg(rate)) : "as fast as the service takes them");

    const ProcessFigures before = processFigures(pid);
    double peakMb = before.residentMb;
    QTimer sampler;
    QObject::connect(&sampler, &QTimer::timeout, [&] { peakMb = std::max(peakMb, processFigures(pid).residentMb); });
    sampler.start(100);
    frames = 0;
    sessionFrames = 0;
    patchUs.clear();
    const qint64 began = steadyNanos();
    QMetaObject::invokeMethod(driver, [driver] { driver->begin(); });

    // Done when every session has stopped with its last words in the model.
    auto allStopped = [&] {
        if (!driver->finished || !model.snapshot())
            return false;
        int stopped = 0;
        for (const Session& session : model.snapshot()->sessions.items) {
            if (session.lastText && session.lastText->startsWith(QLatin1StringView("Done ")))
                ++stopped;
        }
        return stopped == sessions;
    };
    if (!waitUntil(allStopped, 600000)) {
        std::puts("FAILED: the load didn't reach the model in ten minutes.");
        return 1;
    }
    sampler.stop();
    const ProcessFigures after = processFigures(pid);
    peakMb = std::max(peakMb, after.residentMb);
    const double playSeconds = double(driver->endedAt - began) / 1e9;
    const double feedSeconds = double(lastFrameAt - began) / 1e9;
    std::vector<double> replyMs;
    QMetaObject::invokeMethod(
        driver, [&] { replyMs = driver->replyMs; }, Qt::BlockingQueuedConnection);

    std::printf("  hook route: %d events in %.2f s, %.0f events/s; a POST median %.1f ms, p95 %.1f ms; %d refused\n",
        driver->events(), playSeconds, double(driver->events()) / playSeconds, percentile(replyMs, 0.5),
        percentile(replyMs, 0.95), driver->refused.load());
    std::printf("  feed into the model: %lld frames (%lld session) in %.2f s, %.0f frames/s\n",
        static_cast<long long>(frames), static_cast<long long>(sessionFrames), feedSeconds,
        double(frames) / feedSeconds);
    std::printf("  hook event posted -> model holding it: median %.1f ms, p95 %.1f ms, max %.1f ms "
                "(%zu of %d tool calls seen; the rest folded into later frames)\n",
        percentile(postedToModelMs, 0.5), percentile(postedToModelMs, 0.95),
        postedToModelMs.empty() ? 0.0 : *std::max_element(postedToModelMs.begin(), postedToModelMs.end()),
        postedToModelMs.size(), sessions * calls);
    std::printf("  frame handed to the model -> patched: median %.0f us, p95 %.0f us\n", percentile(patchUs, 0.5),
        percentile(patchUs, 0.95));
    const double cpu = after.cpuSeconds - before.cpuSeconds;
    std::printf("  service: %.2f CPU s over %.2f s (%.0f%% of a core, %.2f ms per event); resident memory %.1f MB "
                "before, peak %.1f MB, %.1f MB after\n",
        cpu, feedSeconds, 100 * cpu / feedSeconds, 1000 * cpu / driver->events(), before.residentMb, peakMb,
        after.residentMb);

    QMetaObject::invokeMethod(
        driver, [driver] { delete driver; }, Qt::BlockingQueuedConnection);
    driverThread.quit();
    driverThread.wait();
    service.stop();
    return 0;
}
