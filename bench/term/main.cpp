// What the terminal relay costs the person at the keyboard: the round trip of
// one keystroke echoed back by the agent, and the throughput of `cat` of a
// large file, each through the relay and bare, taking turns, in a pseudo-
// terminal of their own. The relay is weighed with the real service up (its
// output mirrored to it) and down (nothing to connect to).
//
// The "agent" is `cat` behind a program named `claude`, so the relay shares it.
// Aims: under 1 ms median added to the echo, at least 80 % of bare throughput.
//
// Options: --keys N (echo samples per case, default 2000); --mb N (file size,
// default 50); --runs N (rounds of the three throughput cases, taken in turn so
// that a machine's drift falls on all three alike; default 5).

#include "../BenchSupport.h"
#include "ScratchFolder.h"
#include "ServiceProcess.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

using bench::percentile;
using bench::steadyNanos;

struct Terminal {
    int master = -1;
    pid_t pid = -1;
};

// The person's terminal: a pty whose other end runs `argv` with `env`.
Terminal open(const std::vector<std::string>& argv, const std::vector<std::string>& env)
{
    Terminal terminal;
    winsize size{};
    size.ws_col = 120;
    size.ws_row = 40;
    terminal.pid = forkpty(&terminal.master, nullptr, nullptr, &size);
    if (terminal.pid == 0) {
        termios raw{};
        tcgetattr(STDIN_FILENO, &raw);
        cfmakeraw(&raw);
        tcsetattr(STDIN_FILENO, TCSANOW, &raw);
        std::vector<char*> args;
        for (const auto& word : argv)
            args.push_back(const_cast<char*>(word.c_str()));
        args.push_back(nullptr);
        std::vector<char*> vars;
        for (const auto& word : env)
            vars.push_back(const_cast<char*>(word.c_str()));
        vars.push_back(nullptr);
        execve(args[0], args.data(), vars.data());
        _exit(127);
    }
    return terminal;
}

void close(Terminal& terminal)
{
    kill(terminal.pid, SIGKILL);
    waitpid(terminal.pid, nullptr, 0);
    ::close(terminal.master);
}

bool readSome(int fd, int timeoutMs, std::string* into = nullptr)
{
    pollfd one{fd, POLLIN, 0};
    if (poll(&one, 1, timeoutMs) <= 0)
        return false;
    char chunk[65536];
    const ssize_t got = read(fd, chunk, sizeof chunk);
    if (got > 0 && into)
        into->append(chunk, size_t(got));
    return got > 0;
}

// One keystroke to its echo, in microseconds.
std::vector<double> echoes(const std::vector<std::string>& argv, const std::vector<std::string>& env, int keys)
{
    Terminal terminal = open(argv, env);
    // Settled once a first key comes back.
    for (int tries = 0; tries < 100; ++tries) {
        write(terminal.master, "x", 1);
        if (readSome(terminal.master, 100))
            break;
    }
    while (readSome(terminal.master, 50)) { }
    std::vector<double> samples;
    for (int i = 0; i < keys; ++i) {
        const auto start = steadyNanos();
        write(terminal.master, "k", 1);
        std::string got;
        while (got.find('k') == std::string::npos && readSome(terminal.master, 1000, &got)) { }
        samples.push_back(double(steadyNanos() - start) / 1e3);
    }
    close(terminal);
    return samples;
}

// Megabytes a second that reach the person's terminal while `cat` prints the file.
double throughput(const std::vector<std::string>& argv, const std::vector<std::string>& env, size_t bytes)
{
    Terminal terminal = open(argv, env);
    const auto start = steadyNanos();
    size_t seen = 0;
    std::string chunk;
    while (seen < bytes && readSome(terminal.master, 5000, &chunk)) {
        seen += chunk.size();
        chunk.clear();
    }
    const double seconds = double(steadyNanos() - start) / 1e9;
    close(terminal);
    return double(seen) / 1e6 / seconds;
}

void report(const char* name, std::vector<double> samples)
{
    std::printf("  %-26s median %7.1f µs   p95 %7.1f µs\n", name, percentile(samples, 0.5), percentile(samples, 0.95));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const auto option = [&](const QString& name, int fallback) {
        const auto at = args.indexOf(name);
        return at > 0 && at + 1 < args.size() ? args[at + 1].toInt() : fallback;
    };
    const int keys = option(QStringLiteral("--keys"), 2000);
    const size_t bytes = size_t(option(QStringLiteral("--mb"), 50)) * 1000 * 1000;
    const int runs = std::max(1, option(QStringLiteral("--runs"), 5));
    const std::string relay
        = (QCoreApplication::applicationDirPath() + QStringLiteral("/tidewatch-term")).toStdString();
    if (access(relay.c_str(), X_OK) != 0) {
        std::fprintf(stderr, "The relay isn't built beside this benchmark: %s\n", relay.c_str());
        return 1;
    }

    ScratchFolder scratch;
    const QString bin = scratch.path() + QStringLiteral("/bin");
    QDir().mkpath(bin);
    const std::string agent = (bin + QStringLiteral("/claude")).toStdString();
    {
        QFile script(QString::fromStdString(agent));
        script.open(QIODevice::WriteOnly);
        script.write("#!/bin/sh\nexec \"$@\"\n");
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    const std::string file = (scratch.path() + QStringLiteral("/big.txt")).toStdString();
    {
        QFile big(QString::fromStdString(file));
        big.open(QIODevice::WriteOnly);
        const QByteArray line = QByteArray("A line an agent prints, with some ✓ UTF-8 and \x1b[32mcolour\x1b[0m.\n");
        for (size_t written = 0; written < bytes; written += size_t(line.size()))
            big.write(line);
    }
    ServiceProcess service(scratch.path());
    if (!service.start()) {
        std::fprintf(stderr, "The service didn't start: %s\n", qPrintable(service.lastError()));
        return 1;
    }
    const std::vector<std::string> up
        = {"TERM=xterm-256color", "PATH=/usr/bin:/bin", "TIDEWATCH_SUPPORT=" + service.supportFolder().toStdString()};
    const std::vector<std::string> down = {"TERM=xterm-256color", "PATH=/usr/bin:/bin",
        "TIDEWATCH_SUPPORT=" + (scratch.path() + QStringLiteral("/nothing-here")).toStdString()};

    std::printf("Keystroke echo, %d keys each\n", keys);
    const auto bare = echoes({agent, "cat"}, up, keys);
    const auto relayedUp = echoes({relay, agent, "cat"}, up, keys);
    const auto relayedDown = echoes({relay, agent, "cat"}, down, keys);
    report("bare", bare);
    report("relay, service up", relayedUp);
    report("relay, service down", relayedDown);
    std::printf("  added at the median: %.1f µs (service up), %.1f µs (down)\n",
        percentile(relayedUp, 0.5) - percentile(bare, 0.5), percentile(relayedDown, 0.5) - percentile(bare, 0.5));

    std::printf("cat of %zu MB, medians of %d rounds\n", bytes / 1000 / 1000, runs);
    std::vector<double> bareRates, upRates, downRates, upShares, downShares;
    for (int round = 0; round < runs; ++round) {
        bareRates.push_back(throughput({agent, "cat", file}, up, bytes));
        upRates.push_back(throughput({relay, agent, "cat", file}, up, bytes));
        downRates.push_back(throughput({relay, agent, "cat", file}, down, bytes));
        // Each round's relay against the same round's bare terminal.
        upShares.push_back(100 * upRates.back() / bareRates.back());
        downShares.push_back(100 * downRates.back() / bareRates.back());
    }
    std::printf("  bare %.0f MB/s; relay %.0f MB/s with the service up (%.0f %%), %.0f MB/s down (%.0f %%)\n",
        percentile(bareRates, 0.5), percentile(upRates, 0.5), percentile(upShares, 0.5), percentile(downRates, 0.5),
        percentile(downShares, 0.5));
    service.stop();
    return 0;
}
