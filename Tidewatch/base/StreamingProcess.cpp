#include "base/StreamingProcess.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPipeGrace = std::chrono::seconds(2); // for the pipe after the child's end

// The process whose thread this is, so that an owner destroyed from inside
// one of its own callbacks knows it already holds the delivery lock.
thread_local const void* tl_pumping = nullptr;

QString trimmedOfBlanks(const QString& line)
{
    const auto blank = [](QChar c) { return c == QLatin1Char(' ') || c == QLatin1Char('\t'); };
    qsizetype start = 0;
    qsizetype end = line.size();
    while (start < end && blank(line.at(start)))
        ++start;
    while (end > start && blank(line.at(end - 1)))
        --end;
    return line.mid(start, end - start);
}

QString couldNotStart(const QString& reason)
{
    return QStringLiteral("Couldn’t start: ") + reason;
}

} // namespace

/// What the owner, the process's thread and the exit waiter share; it lives
/// as long as the longest of them.
struct StreamingProcess::Shared {
    /// Held while a callback runs. The owner takes it to fall silent, so no
    /// callback outlives the owner.
    std::mutex deliver;
    std::atomic<bool> silent{false};
    /// Set by start() before the thread exists, then touched only there.
    LineHandler onLine;
    ExitHandler onExit;

    /// Guards what the exit waiter hands over, and the wake pipe's write end.
    std::mutex lock;
    Shell::Pipe wake{-1, -1};
    pid_t pid = -1;
    bool exited = false;
    int status = -1;

    void pokeLocked() const
    {
        if (wake[1] < 0)
            return;
        const char byte = 1;
        [[maybe_unused]] const ssize_t written = ::write(wake[1], &byte, 1);
    }

    void closeWake()
    {
        std::lock_guard guard(lock);
        for (int& fd : wake) {
            if (fd >= 0)
                ::close(fd);
            fd = -1;
        }
    }

    void say(const QString& line)
    {
        std::lock_guard guard(deliver);
        if (!silent && onLine)
            onLine(line);
    }

    void finish(int exitStatus)
    {
        std::lock_guard guard(deliver);
        if (!silent && onExit)
            onExit(exitStatus);
        // Nothing can be called again: let go of what the callbacks hold.
        onLine = nullptr;
        onExit = nullptr;
    }
};

StreamingProcess::StreamingProcess()
    : m_shared(std::make_shared<Shared>())
{
}

StreamingProcess::~StreamingProcess()
{
    if (tl_pumping == m_shared.get()) {
        m_shared->silent = true;
        return;
    }
    std::lock_guard guard(m_shared->deliver);
    m_shared->silent = true;
}

QStringList StreamingProcess::takeLines(QByteArray& buffer, bool flush)
{
    QStringList lines;
    const char* data = buffer.constData();
    const qsizetype size = buffer.size();
    qsizetype from = 0;
    for (qsizetype i = 0; i < size; ++i) {
        if (data[i] != '\r' && data[i] != '\n')
            continue;
        // Decoded a line at a time, so a character split across two reads arrives whole.
        const QString line = trimmedOfBlanks(Shell::stripEscapes(QString::fromUtf8(data + from, i - from)));
        if (!line.isEmpty())
            lines << line;
        from = i + 1;
    }
    buffer.remove(0, from);
    if (flush && !buffer.isEmpty()) {
        const QString line = Shell::stripEscapes(QString::fromUtf8(buffer)).trimmed();
        buffer.clear();
        if (!line.isEmpty())
            lines << line;
    }
    return lines;
}

void StreamingProcess::start(const QString& executable, const QStringList& arguments,
    const std::optional<Shell::Environment>& environment, LineHandler onLine, ExitHandler onExit)
{
    if (m_started)
        return;
    m_started = true;
    const std::shared_ptr<Shared> shared = m_shared;
    shared->onLine = std::move(onLine);
    shared->onExit = std::move(onExit);

    int error = 0;
    int readEnd = -1;
    Shell::Pipe output{};
    if (!Shell::makePipe(shared->wake) || !Shell::makePipe(output)) {
        error = errno;
    } else {
        // The waiter must never block on a full wake pipe while it holds the lock.
        ::fcntl(shared->wake[1], F_SETFL, ::fcntl(shared->wake[1], F_GETFL) | O_NONBLOCK);
        // One pipe for both streams keeps them in the order the child wrote them.
        const Shell::Child child = Shell::spawn(
            executable, arguments, environment ? *environment : Shell::environment(), QString(), output[1], output[1]);
        ::close(output[1]);
        if (child.pid > 0) {
            readEnd = output[0];
            shared->pid = child.pid;
        } else {
            ::close(output[0]);
            error = child.error;
        }
    }

    if (readEnd >= 0) {
        try {
            std::thread([shared, pid = shared->pid] {
                Shell::awaitEnd(pid);
                std::lock_guard guard(shared->lock);
                shared->status = Shell::reap(pid);
                shared->exited = true;
                shared->pokeLocked();
            }).detach();
        } catch (const std::system_error& failure) {
            // Nobody would learn of its end: it doesn't run at all.
            ::kill(shared->pid, SIGKILL);
            Shell::reap(shared->pid);
            ::close(readEnd);
            readEnd = -1;
            error = failure.code().value();
        }
    }

    try {
        std::thread([shared, readEnd, error] { pump(shared, readEnd, error); }).detach();
    } catch (const std::system_error& failure) {
        // Without a thread of its own the end can only be told here, on the
        // caller's, which then counts as the process's for the destructor.
        const void* const outer = std::exchange(tl_pumping, shared.get());
        if (readEnd >= 0) {
            {
                std::lock_guard guard(shared->lock);
                if (!shared->exited)
                    ::kill(shared->pid, SIGKILL);
            }
            ::close(readEnd);
        }
        shared->say(couldNotStart(QString::fromStdString(failure.code().message())));
        shared->finish(-1);
        shared->closeWake();
        tl_pumping = outer;
    }
}

void StreamingProcess::pump(const std::shared_ptr<Shared>& shared, int fd, int launchError)
{
    tl_pumping = shared.get();
    if (fd < 0) {
        shared->say(couldNotStart(Shell::describe(launchError)));
        shared->finish(-1);
        shared->closeWake();
        return;
    }

    int pipeFd = fd;
    QByteArray buffer;
    std::optional<int> exitStatus;
    std::optional<Clock::time_point> graceEnds;
    const auto endOutput = [&pipeFd] {
        if (pipeFd >= 0)
            ::close(pipeFd);
        pipeFd = -1;
    };
    const int wakeFd = shared->wake[0];

    while (!(exitStatus && pipeFd < 0)) {
        std::array<pollfd, 2> fds{{{wakeFd, POLLIN, 0}, {pipeFd, POLLIN, 0}}};
        int timeout = -1;
        if (graceEnds) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*graceEnds - Clock::now()).count();
            timeout = int(std::max<qint64>(0, left));
        }
        const int ready = ::poll(fds.data(), pipeFd >= 0 ? 2 : 1, timeout);
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            // Poll itself failed: give up on the output and wait for the end alone.
            endOutput();
            bool known;
            {
                std::lock_guard guard(shared->lock);
                known = shared->exited;
            }
            if (!known) {
                char byte;
                [[maybe_unused]] const ssize_t woken = ::read(wakeFd, &byte, 1);
            }
        }
        if (fds[0].revents & POLLIN) {
            std::array<char, 64> drain{};
            [[maybe_unused]] const ssize_t drained = ::read(wakeFd, drain.data(), drain.size());
        }
        if (pipeFd >= 0 && (fds[1].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL))) {
            std::array<char, 65536> chunk{};
            const ssize_t got = ::read(pipeFd, chunk.data(), chunk.size());
            if (got > 0) {
                // Once silent, the output is only drained, so the child never meets a full or closed pipe.
                if (!shared->silent) {
                    buffer.append(chunk.data(), got);
                    // Lines before this chunk were all taken; only a terminator in it makes new ones.
                    if (std::memchr(chunk.data(), '\n', size_t(got)) || std::memchr(chunk.data(), '\r', size_t(got))) {
                        for (const QString& line : takeLines(buffer, false))
                            shared->say(line);
                    }
                }
            } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
                endOutput();
            }
        }
        if (!exitStatus) {
            std::lock_guard guard(shared->lock);
            if (shared->exited) {
                exitStatus = shared->status;
                // A background process may hold the pipe open; it gets this long, then the end comes anyway.
                graceEnds = Clock::now() + kPipeGrace;
            }
        }
        if (graceEnds && Clock::now() >= *graceEnds)
            endOutput();
    }

    if (!shared->silent) {
        for (const QString& line : takeLines(buffer, true))
            shared->say(line);
    }
    shared->finish(exitStatus.value_or(-1));
    shared->closeWake();
}
