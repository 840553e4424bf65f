// What Tidewatch's hook program adds to each Claude Code hook event: the
// program run as Claude Code runs a command hook (the event on standard
// input, its output read to the end), beside a hook that does nothing
// (`node -e ''` on the same Node.js), the two taking turns. The events are
// real payloads of Claude Code (daemon/test/fixtures/claude):
//
//   - PreToolUse, the report that every tool call fires;
//   - PermissionRequest, answered "allow" the moment its approval reaches
//     the feed, as the panel would;
//
// each with the real service up (a test copy on free ports in a scratch
// folder) and with it down (its folder and token there, nothing listening).
// Prints median and p95 of each, and of the difference run by run, which is
// the figure that counts: the aim is under 20 ms.
//
// Beside it, the road of Claude Code's HTTP hooks, which run no program: the
// same PreToolUse posted as Claude Code posts it (the hook credential, the
// empty terminal header) on a fresh loopback connection, timed to its whole
// answer, the service up and down; the whole of it is added time.
//
// Options: --runs N (each case, default 60); --hook PATH (another hook
// program to weigh, such as an older version of it).

#include "../BenchSupport.h"
#include "ScratchFolder.h"
#include "ServiceProcess.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QWebSocket>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using bench::claudeFixture;
using bench::percentile;
using bench::steadyNanos;
using bench::waitUntil;

struct Outcome {
    double ms = 0;
    double cpuMs = 0; ///< its own user and system time, which a busy machine disturbs less
    int status = -1;
    QByteArray out;
};

/// Runs a program with this input and waits for it: the wall time from the
/// spawn to the reaped exit, with its output drained as Claude Code drains it.
Outcome runOnce(const QStringList& arguments, const QByteArray& input, const QStringList& environment)
{
    Outcome outcome;
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
        return outcome;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);

    // std::string, so that an empty word is still a word.
    std::vector<std::string> words;
    for (const QString& word : arguments)
        words.push_back(word.toStdString());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    std::vector<std::string> pairs;
    for (const QString& pair : environment)
        pairs.push_back(pair.toStdString());
    std::vector<char*> envp;
    for (std::string& pair : pairs)
        envp.push_back(pair.data());
    envp.push_back(nullptr);

    const auto started = std::chrono::steady_clock::now();
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, argv.front(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    if (spawned != 0) {
        close(in[1]);
        close(out[0]);
        return outcome;
    }
    qsizetype written = 0;
    while (written < input.size()) {
        const ssize_t n = write(in[1], input.constData() + written, size_t(input.size() - written));
        if (n <= 0)
            break;
        written += n;
    }
    close(in[1]);
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(out[0], buffer, sizeof buffer);
        if (n <= 0)
            break;
        outcome.out.append(buffer, n);
    }
    close(out[0]);
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    outcome.ms
        = double(
              std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - started).count())
        / 1000.0;
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome.cpuMs = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000
        + double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000;
    return outcome;
}

/// runOnce on a thread of its own, with the main thread's event loop
/// running meanwhile (the answerer lives there).
Outcome run(const QStringList& arguments, const QByteArray& input, const QStringList& environment)
{
    Outcome outcome;
    std::atomic<bool> done{false};
    std::thread runner([&] {
        outcome = runOnce(arguments, input, environment);
        done = true;
    });
    waitUntil([&] { return done.load(); }, 600000);
    runner.join();
    return outcome;
}

/// Plays the panel: answers every approval "allow" as soon as the feed brings it.
class Answerer : public QObject
{
public:
    explicit Answerer(const ServiceProcess& service)
        : m_service(service)
    {
        m_network.setProxy(QNetworkProxy::NoProxy);
        connect(&m_socket, &QWebSocket::textMessageReceived, this, [this](const QString& text) {
            if (!text.startsWith(QLatin1StringView(R"({"t":"approval",)")))
                return;
            const QString id = QJsonDocument::fromJson(text.toUtf8())
                                   .object()
                                   .value(QLatin1StringView("approval"))
                                   .toObject()
                                   .value(QLatin1StringView("id"))
                                   .toString();
            if (id.isEmpty())
                return;
            QNetworkRequest request(QUrl(
                QStringLiteral("http://127.0.0.1:%1/v1/approvals/%2/decision").arg(m_service.localPort()).arg(id)));
            request.setRawHeader("Authorization", "Bearer " + m_service.token().toUtf8());
            request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
            QNetworkReply* reply = m_network.post(request, QByteArrayLiteral(R"({"decision":"allow"})"));
            connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
            ++answered;
        });
        connect(&m_socket, &QWebSocket::connected, this, [this] { m_live = true; });
    }

    bool open()
    {
        QNetworkRequest request(QUrl(QStringLiteral("ws://127.0.0.1:%1/v1/ws?client=bench").arg(m_service.apiPort())));
        request.setRawHeader("Authorization", "Bearer " + m_service.token().toUtf8());
        m_socket.open(request);
        return waitUntil([this] { return m_live; }, 10000);
    }

    void close() { m_socket.close(); }

    int answered = 0;

private:
    const ServiceProcess& m_service;
    QNetworkAccessManager m_network;
    QWebSocket m_socket;
    bool m_live = false;
};

/// One POST as Claude Code's HTTP hook makes it, on a fresh loopback
/// connection: the wall time from the connect to the answer's end.
Outcome post(int port, const QByteArray& token, const QByteArray& body)
{
    Outcome outcome;
    const qint64 started = steadyNanos();
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        const QByteArray request = "POST /claude/hooks/report HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port)
            + "\r\nContent-Type: application/json\r\nAuthorization: Bearer " + token
            + "\r\nX-Tidewatch-Term: \r\nContent-Length: " + QByteArray::number(body.size())
            + "\r\nConnection: close\r\n\r\n" + body;
        qsizetype sent = 0;
        while (sent < request.size()) {
            const ssize_t wrote = ::write(fd, request.constData() + sent, static_cast<size_t>(request.size() - sent));
            if (wrote <= 0)
                break;
            sent += wrote;
        }
        char buffer[4096];
        for (ssize_t got = 0; (got = ::read(fd, buffer, sizeof buffer)) > 0;)
            outcome.out.append(buffer, got);
        outcome.status = outcome.out.startsWith("HTTP/1.1 200") ? 0 : 1;
    }
    if (fd >= 0)
        ::close(fd);
    outcome.ms = static_cast<double>(steadyNanos() - started) / 1e6;
    return outcome;
}

struct Case {
    const char* name;
    QByteArray payload;
    /// What the hook must print: the answer, or nothing at all.
    QByteArray says;
};

struct Figures {
    std::vector<double> empty;
    std::vector<double> hook;
    std::vector<double> added;
    std::vector<double> addedCpu;
    int failures = 0;
};

/// The HTTP road: every POST is added time. `up` says whether it must be answered.
Figures measurePost(const QByteArray& payload, int runs, int port, const QByteArray& token, bool up)
{
    Figures figures;
    for (int i = 0; i < 3; ++i)
        post(port, token, payload);
    for (int i = 0; i < runs; ++i) {
        const Outcome ours = post(port, token, payload);
        if ((ours.status == 0) != up)
            ++figures.failures;
        figures.empty.push_back(0);
        figures.hook.push_back(ours.ms);
        figures.added.push_back(ours.ms);
        figures.addedCpu.push_back(0);
    }
    return figures;
}

Figures measure(
    const Case& one, int runs, const QStringList& hook, const QStringList& empty, const QStringList& environment)
{
    Figures figures;
    for (int i = 0; i < 3; ++i) {
        run(empty, one.payload, environment);
        run(hook, one.payload, environment);
    }
    for (int i = 0; i < runs; ++i) {
        const Outcome base = run(empty, one.payload, environment);
        const Outcome ours = run(hook, one.payload, environment);
        const bool right = one.says.isEmpty() ? ours.out.isEmpty() : ours.out.contains(one.says);
        if (ours.status != 0 || base.status != 0 || !right)
            ++figures.failures;
        figures.empty.push_back(base.ms);
        figures.hook.push_back(ours.ms);
        figures.added.push_back(ours.ms - base.ms);
        figures.addedCpu.push_back(ours.cpuMs - base.cpuMs);
    }
    return figures;
}

void print(const char* name, const Figures& figures)
{
    std::printf("%-44s %8.1f %8.1f %8.1f %8.1f %8.1f %8.1f %8.1f %5d\n", name, percentile(figures.empty, 0.5),
        percentile(figures.empty, 0.95), percentile(figures.hook, 0.5), percentile(figures.hook, 0.95),
        percentile(figures.added, 0.5), percentile(figures.added, 0.95), percentile(figures.addedCpu, 0.5),
        figures.failures);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    int runs = 60;
    QString program = QStringLiteral(TIDEWATCH_SOURCE_DIR "/daemon/bin/tidewatch-hook.mjs");
    const QStringList args = application.arguments();
    for (int i = 1; i + 1 < args.size(); ++i) {
        if (args[i] == QLatin1StringView("--runs"))
            runs = std::max(1, args[i + 1].toInt());
        else if (args[i] == QLatin1StringView("--hook"))
            program = args[i + 1];
    }

    ScratchFolder scratch;
    ServiceProcess service(scratch.path());
    if (!service.start()) {
        std::printf("FAILED: the service didn't start: %s\n", qPrintable(service.lastError()));
        return 1;
    }

    // The payloads Claude Code sent, moved into the scratch folder with a
    // transcript the service reads on each event, as it would.
    const QString project = scratch.file(QStringLiteral("project/x"));
    QDir().mkpath(QFileInfo(project).path());
    auto placed = [&](QJsonObject event) {
        const QString session = event.value(QLatin1StringView("session_id")).toString();
        const QString transcript = scratch.file(QStringLiteral("transcripts/%1.jsonl").arg(session));
        if (!QFile::exists(transcript))
            QFile::copy(
                QStringLiteral(TIDEWATCH_SOURCE_DIR "/daemon/test/fixtures/claude/transcript-interactive.jsonl"),
                transcript);
        event.insert(QStringLiteral("cwd"), QFileInfo(project).path());
        event.insert(QStringLiteral("transcript_path"), transcript);
        return QJsonDocument(event).toJson(QJsonDocument::Compact);
    };
    const Case report{"PreToolUse", placed(claudeFixture(QStringLiteral("pre-tool-use-bash.json"))), {}};
    const Case permission{"PermissionRequest, answered at once",
        placed(claudeFixture(QStringLiteral("permission-request-bash.json"))), R"("behavior":"allow")"};
    // With nobody there, Claude Code's own prompt decides: the hook says nothing.
    const Case unanswered{"PermissionRequest", permission.payload, {}};
    if (report.payload.size() < 100 || permission.payload.size() < 100) {
        std::puts("FAILED: the sample payloads weren't found.");
        return 1;
    }

    const QString node = ServiceProcess::nodeProgram();
    const QStringList hook{node, program, QStringLiteral("--support"), service.supportFolder()};
    const QStringList empty{node, QStringLiteral("-e"), QString()};
    const QStringList environment{QStringLiteral("PATH=/usr/local/bin:/usr/bin:/bin"),
        QStringLiteral("HOME=") + scratch.path() + QStringLiteral("/home"), QStringLiteral("LANG=C.UTF-8")};

    Answerer answerer(service);
    if (!answerer.open()) {
        std::puts("FAILED: the feed didn't open.");
        return 1;
    }

    std::printf("hooks bench: %d runs a case, %s on Node.js %s\n", runs, qPrintable(program), qPrintable(node));
    std::printf("%-44s %17s %17s %17s %8s %5s\n", "ms", "empty hook", "tidewatch hook", "added", "CPU", "");
    std::printf("%-44s %8s %8s %8s %8s %8s %8s %8s %5s\n", "", "median", "p95", "median", "p95", "median", "p95",
        "added", "fails");
    print("service up: PreToolUse", measure(report, runs, hook, empty, environment));
    print("service up: PermissionRequest, answered at once", measure(permission, runs, hook, empty, environment));
    QFile hookTokenFile(service.supportFolder() + QStringLiteral("/hook-token"));
    if (!hookTokenFile.open(QIODevice::ReadOnly)) {
        std::puts("FAILED: the service made no hook credential.");
        return 1;
    }
    const QByteArray hookToken = hookTokenFile.readAll().trimmed();
    const int port = service.localPort();
    print("service up: PreToolUse, HTTP hook", measurePost(report.payload, runs, port, hookToken, true));
    const int answered = answerer.answered;
    answerer.close();

    service.stop();
    print("service down: PreToolUse", measure(report, runs, hook, empty, environment));
    print("service down: PermissionRequest", measure(unanswered, runs, hook, empty, environment));
    print("service down: PreToolUse, HTTP hook", measurePost(report.payload, runs, port, hookToken, false));
    std::printf("(%d approvals answered; \"added\" is each hook run less the empty hook run beside it, and the\n"
                " whole POST for an HTTP hook; \"CPU added\" the median of the same for the processes' own CPU time)\n",
        answered);
    return 0;
}
