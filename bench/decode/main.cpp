// How much the tolerant decoding of a snapshot costs beside the bare JSON parse.
// Prints, for a generated snapshot of each size, the median MB/s of
// QJsonDocument::fromJson alone and of decodeDocument<Snapshot> (parse and
// decode), the decode alone on a parsed document, and the ratio of the first
// two.

#include "link/Snapshot.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <random>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 kNow = 1760021835512;

class Generator
{
public:
    explicit Generator(quint64 seed)
        : m_rng(seed)
    {
    }

    int below(int n) { return int(m_rng() % quint64(n)); }
    bool chance(int percent) { return below(100) < percent; }

    QString words(int count)
    {
        static const char* const pool[]
            = {"the", "retry", "loop", "session", "upload", "test", "store", "schema", "export", "ledger", "invoice",
                "token", "worker", "branch", "fix", "flaky", "cache", "review", "plan", "rename", "module"};
        QString text;
        for (int i = 0; i < count; ++i) {
            if (i)
                text += u' ';
            text += QLatin1StringView(pool[below(int(std::size(pool)))]);
        }
        return text;
    }

    // A moment near now, in one of the forms the service has sent.
    QJsonValue date(qint64 offsetMs)
    {
        const qint64 ms = kNow + offsetMs;
        switch (below(7)) {
        case 0:
            return double(ms / 1000);
        case 1:
            return QString::number(ms);
        case 2:
            return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).toString(Qt::ISODateWithMs);
        case 3:
            return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).toString(Qt::ISODate);
        case 4:
            return QDateTime::fromMSecsSinceEpoch(ms, Qt::OffsetFromUTC, 7200).toString(Qt::ISODateWithMs);
        default:
            return double(ms);
        }
    }

    QString id() { return QString::number(m_rng(), 16); }

    QJsonObject session(int index)
    {
        static const char* const states[] = {"working", "idle", "needs_you", "starting", "ended", "error"};
        QJsonObject s{
            {u"id"_s, id()},
            {u"title"_s, words(3 + below(6))},
            {u"cwd"_s, u"/Users/ada/code/project-%1"_s.arg(index % 40)},
            {u"projectName"_s, u"project-%1"_s.arg(index % 40)},
            {u"origin"_s, chance(70) ? u"terminal"_s : u"phone"_s},
            {u"state"_s, QLatin1StringView(states[below(int(std::size(states)))])},
            {u"providerId"_s, chance(20) ? u"codex"_s : u"anthropic"_s},
            {u"model"_s, chance(50) ? u"claude-sonnet-4-5"_s : u"claude-opus-4-1"_s},
            {u"permissionMode"_s, u"default"_s},
            {u"createdAt"_s, date(-below(86400000))},
            {u"lastActivityAt"_s, date(-below(600000))},
            {u"activity"_s, words(4)},
            {u"lastText"_s, words(80 + below(120))},
            {u"queued"_s, below(3)},
            {u"pendingApprovalIds"_s, QJsonArray{id()}},
            {u"stoppedForAway"_s, false},
            {u"agentsRunning"_s, below(4)},
        };
        if (chance(60))
            s.insert(u"term"_s, QJsonObject{{u"id"_s, id()}, {u"mac"_s, below(2)}, {u"phone"_s, below(2)}});
        if (chance(15))
            s.insert(u"blocked"_s,
                QJsonObject{{u"kind"_s, u"limit"_s}, {u"text"_s, words(12)}, {u"resetsAt"_s, date(3600000)},
                    {u"autoResumeAt"_s, chance(50) ? date(3660000) : QJsonValue()},
                    {u"resume"_s,
                        QJsonObject{{u"state"_s, u"armed"_s}, {u"at"_s, date(3660000)}, {u"by"_s, u"tidewatch"_s},
                            {u"canCancel"_s, true}, {u"canArm"_s, false}}}});
        if (chance(10))
            s.insert(u"automation"_s,
                QJsonObject{{u"id"_s, u"au_nightly"_s}, {u"name"_s, u"Nightly review"_s}, {u"runId"_s, id()}});
        if (s.value(u"providerId"_s) == u"codex"_s)
            s.insert(u"agent"_s, u"codex"_s);
        // A newer service's keys, which the app must step over.
        if (chance(30))
            s.insert(u"telemetry"_s,
                QJsonObject{{u"tokens"_s, QJsonArray{below(9000), below(9000), below(9000)}},
                    {u"cost"_s, below(1000) / 100.0}});
        return s;
    }

    QJsonObject approval(const QString& sessionId)
    {
        QJsonObject a{
            {u"id"_s, u"ap_"_s + id()},
            {u"sessionId"_s, sessionId},
            {u"createdAt"_s, date(-below(60000))},
            {u"expiresAt"_s, date(600000)},
            {u"summary"_s, words(6)},
            {u"reason"_s, words(8)},
            {u"canAlways"_s, chance(50)},
            {u"canSession"_s, true},
        };
        switch (below(3)) {
        case 0: {
            // A file written whole: the bulk of a real snapshot's bytes.
            QString content;
            for (int line = 150 + below(450); line > 0; --line)
                content += u"    "_s + words(8) + u";\n"_s;
            a.insert(u"kind"_s, u"tool"_s);
            a.insert(u"toolName"_s, u"Write"_s);
            a.insert(u"input"_s,
                QJsonObject{{u"file_path"_s, u"/Users/ada/code/project/src/module.ts"_s}, {u"content"_s, content}});
            break;
        }
        case 1: {
            QJsonArray questions;
            for (int q = 1 + below(3); q > 0; --q) {
                QJsonArray options;
                for (int o = 2 + below(3); o > 0; --o)
                    options.append(QJsonObject{{u"label"_s, words(2)}, {u"description"_s, words(10)}});
                questions.append(QJsonObject{{u"question"_s, words(9) + u'?'}, {u"header"_s, words(1)},
                    {u"multiSelect"_s, chance(30)}, {u"options"_s, options}});
            }
            a.insert(u"kind"_s, u"question"_s);
            a.insert(u"toolName"_s, u"AskUserQuestion"_s);
            a.insert(u"questions"_s, questions);
            a.insert(u"input"_s, QJsonObject{{u"questions"_s, questions}});
            break;
        }
        default:
            a.insert(u"kind"_s, u"plan"_s);
            a.insert(u"toolName"_s, u"ExitPlanMode"_s);
            a.insert(u"plan"_s, words(600));
            a.insert(u"input"_s, QJsonObject{{u"plan"_s, words(600)}});
        }
        return a;
    }

    QByteArray snapshot(int sessions, int approvals)
    {
        QJsonArray sessionList;
        QStringList ids;
        for (int i = 0; i < sessions; ++i) {
            const QJsonObject s = session(i);
            ids << s.value(u"id"_s).toString();
            sessionList.append(s);
        }
        QJsonArray approvalList;
        for (int i = 0; i < approvals; ++i)
            approvalList.append(approval(ids[below(int(ids.size()))]));
        QJsonArray models{QJsonObject{{u"label"_s, u"Opus"_s}, {u"pct"_s, 82}, {u"resetsAt"_s, date(3600000)}},
            QJsonObject{{u"label"_s, u"Sonnet"_s}, {u"pct"_s, 37.5}}};
        const QJsonObject root{
            {u"mac"_s,
                QJsonObject{{u"id"_s, u"mac_7f3c"_s}, {u"name"_s, u"Ada’s MacBook Pro"_s},
                    {u"daemonVersion"_s, u"0.9.4"_s},
                    {u"battery"_s, QJsonObject{{u"percent"_s, 64.5}, {u"charging"_s, false}, {u"onAC"_s, false}}},
                    {u"awake"_s, QJsonObject{{u"mode"_s, u"working"_s}, {u"holding"_s, true}}}}},
            {u"usage"_s,
                QJsonObject{{u"fiveHour"_s, QJsonObject{{u"pct"_s, 71}, {u"resetsAt"_s, date(3600000)}}},
                    {u"sevenDay"_s, QJsonObject{{u"pct"_s, 40}, {u"resetsAt"_s, date(86400000)}}},
                    {u"models"_s, models}, {u"source"_s, u"official"_s}, {u"observedAt"_s, date(0)}}},
            {u"sessions"_s, sessionList},
            {u"approvals"_s, approvalList},
            {u"account"_s, QJsonObject{{u"state"_s, u"ok"_s}, {u"plan"_s, u"Max"_s}}},
            {u"providers"_s,
                QJsonArray{QJsonObject{{u"id"_s, u"anthropic"_s}, {u"name"_s, u"Anthropic"_s},
                    {u"kind"_s, u"anthropic"_s}, {u"builtIn"_s, true}}}},
            {u"codex"_s, QJsonObject{{u"available"_s, true}, {u"enabled"_s, true}, {u"connected"_s, true}}},
            {u"claude"_s, QJsonObject{{u"available"_s, true}, {u"version"_s, u"2.0.14"_s}}},
        };
        return QJsonDocument(root).toJson(QJsonDocument::Compact);
    }

private:
    std::mt19937_64 m_rng;
};

double median(std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

double secondsOf(const std::function<void()>& work)
{
    QElapsedTimer timer;
    timer.start();
    work();
    return double(timer.nsecsElapsed()) / 1e9;
}

void measure(const char* name, const QByteArray& body, int runs)
{
    volatile qint64 sink = 0;
    const double megabytes = double(body.size()) / (1024.0 * 1024.0);

    const std::optional<Snapshot> check = decodeDocument<Snapshot>(body);
    if (!check) {
        std::fprintf(stderr, "%s: the snapshot didn't decode\n", name);
        std::exit(1);
    }
    const QJsonValue root(QJsonDocument::fromJson(body).object());

    // The three are interleaved, so that a busy moment of the machine falls
    // on all of them alike. The parse pays for freeing its document, as
    // decodeDocument does inside; a decoded snapshot is kept by its caller, so
    // it is freed outside the clock.
    std::vector<double> parse, whole, decode;
    for (int i = 0; i < runs; ++i) {
        parse.push_back(secondsOf([&] { sink = QJsonDocument::fromJson(body).object().size(); }));
        std::optional<Snapshot> kept;
        whole.push_back(secondsOf([&] { kept = decodeDocument<Snapshot>(body); }));
        kept.reset();
        decode.push_back(secondsOf([&] { kept = Snapshot::fromJson(root); }));
        sink = kept->sessions.count;
    }
    (void)sink;
    const double p = median(parse), w = median(whole), d = median(decode);

    std::printf("%s: %.2f MB, %lld sessions, %lld approvals, median of %d runs\n", name, megabytes,
        (long long)check->sessions.count, (long long)check->approvals.count, runs);
    std::printf("  bare parse (QJsonDocument::fromJson)   %7.1f MB/s  %8.2f ms\n", megabytes / p, p * 1000);
    std::printf("  parse + decode (decodeDocument)        %7.1f MB/s  %8.2f ms\n", megabytes / w, w * 1000);
    std::printf("  decode alone (Snapshot::fromJson)                   %8.2f ms\n", d * 1000);
    std::printf("  parse + decode / parse                  %6.2f\n", w / p);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    Generator generator(20251009);

    const QByteArray usual = generator.snapshot(2000, 200);
    const QByteArray large = generator.snapshot(20000, 200);
    measure("2,000 sessions, 200 approvals", usual, 15);
    measure("20,000 sessions, 200 approvals", large, 7);
    return 0;
}
