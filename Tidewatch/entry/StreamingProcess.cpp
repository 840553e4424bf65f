#include "entry/StreamingProcess.h"

#include "entry/ChildProcess.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPipeGrace = std::chrono::seconds(2); // for the pipe after the child's end

} // namespace

/// What the process's thread, the exit waiter and the owner share. The wake
/// pipe lives here, so that a waiter that outlives the owner writes to a
/// descriptor that is still its own.
struct StreamingProcess::Shared {
    int wake[2] = {-1, -1};
    std::atomic<bool> stop{false};
    std::atomic<bool> exited{false};
    std::atomic<int> status{-1};

    Shared() { ChildProcess::makePipe(wake); }
    ~Shared()
    {
        for (int fd : wake) {
            if (fd >= 0)
                ::close(fd);
        }
    }
    void poke() const
    {
        const char byte = 1;
        [[maybe_unused]] const ssize_t written = ::write(wake[1], &byte, 1);
    }
};

StreamingProcess::StreamingProcess()
    : m_shared(std::make_shared<Shared>())
{
}

StreamingProcess::~StreamingProcess()
{
    m_shared->stop = true;
    m_shared->poke();
    if (!m_thread.joinable())
        return;
    // Destroyed from inside a callback: the thread ends by itself after it.
    if (m_thread.get_id() == std::this_thread::get_id())
        m_thread.detach();
    else
        m_thread.join();
}

QStringList StreamingProcess::takeLines(QByteArray& buffer, bool flush)
{
    QStringList lines;
    const auto keep = [&lines](const QByteArray& bytes, bool trimNewlines) {
        QString line = Shell::stripEscapes(QString::fromUtf8(bytes));
        if (trimNewlines) {
            line = line.trimmed();
        } else {
            qsizetype start = 0;
            qsizetype end = line.size();
            while (start < end && (line.at(start) == QLatin1Char(' ') || line.at(start) == QLatin1Char('\t')))
                ++start;
            while (end > start && (line.at(end - 1) == QLatin1Char(' ') || line.at(end - 1) == QLatin1Char('\t')))
                --end;
            line = line.mid(start, end - start);
        }
        if (!line.isEmpty())
            lines << line;
    };
    qsizetype from = 0;
    for (qsizetype i = 0; i < buffer.size(); ++i) {
        const char c = buffer.at(i);
        if (c != '\r' && c != '\n')
            continue;
        keep(buffer.mid(from, i - from), false);
        from = i + 1;
    }
    buffer.remove(0, from);
    if (flush && !buffer.isEmpty()) {
        keep(buffer, true);
        buffer.clear();
    }
    return lines;
}

void StreamingProcess::start(const QString& executable, const QStringList& arguments,
                             const std::optional<Shell::Environment>& environment,
                             std::function<void(const QString&)> onLine, std::function<void(int)> onExit)
{
    std::shared_ptr<Shared> shared = m_shared;

    int pipe[2] = {-1, -1};
    ChildProcess::Spawned child;
    if (ChildProcess::makePipe(pipe)) {
        // One pipe for both streams: their order is kept as the child wrote it.
        child = ChildProcess::spawn(executable, arguments, environment.value_or(Shell::environment()), QString(),
                                    pipe[1], pipe[1]);
        ::close(pipe[1]);
    } else {
        child.error = errno;
    }
    if (child.pid > 0) {
        ChildProcess::watchExit(child.pid, [shared](int status) {
            shared->status = status;
            shared->exited = true;
            shared->poke();
        });
    } else if (pipe[0] >= 0) {
        ::close(pipe[0]);
        pipe[0] = -1;
    }

    m_thread = std::thread([shared, fd = pipe[0], child, onLine = std::move(onLine), onExit = std::move(onExit)] {
        const auto deliver = [&](const QStringList& lines) {
            for (const QString& line : lines) {
                if (shared->stop)
                    return;
                if (onLine)
                    onLine(line);
            }
        };
        if (child.pid <= 0) {
            deliver({QStringLiteral("Couldn't start: ") + ChildProcess::describe(child.error)});
            if (!shared->stop && onExit)
                onExit(-1);
            return;
        }

        int pipeFd = fd;
        QByteArray buffer;
        std::optional<int> exitStatus;
        std::optional<Clock::time_point> graceEnds;
        const auto endOutput = [&] {
            if (pipeFd >= 0)
                ::close(pipeFd);
            pipeFd = -1;
        };

        while (!shared->stop) {
            if (exitStatus && pipeFd < 0)
                break;
            pollfd fds[2] = {{shared->wake[0], POLLIN, 0}, {pipeFd, POLLIN, 0}};
            int timeout = -1;
            if (graceEnds) {
                timeout = int(std::max<qint64>(
                    0, std::chrono::duration_cast<std::chrono::milliseconds>(*graceEnds - Clock::now()).count()));
            }
            const int ready = ::poll(fds, pipeFd >= 0 ? 2 : 1, timeout);
            if (ready < 0 && errno != EINTR)
                break;
            if (shared->stop)
                break;
            if (fds[0].revents & POLLIN) {
                char drain[64];
                [[maybe_unused]] const ssize_t drained = ::read(shared->wake[0], drain, sizeof drain);
            }
            if (pipeFd >= 0 && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) {
                char chunk[65536];
                const ssize_t got = ::read(pipeFd, chunk, sizeof chunk);
                if (got > 0) {
                    buffer.append(chunk, got);
                    deliver(takeLines(buffer, false));
                } else if (got == 0 || errno != EINTR) {
                    endOutput();
                }
            }
            if (!exitStatus && shared->exited) {
                exitStatus = shared->status.load();
                // A background process may hold the pipe open; it gets this long, then the end comes anyway.
                graceEnds = Clock::now() + kPipeGrace;
            }
            if (graceEnds && Clock::now() >= *graceEnds)
                endOutput();
        }
        endOutput();
        if (shared->stop)
            return;
        deliver(takeLines(buffer, true));
        if (!shared->stop && onExit)
            onExit(exitStatus.value_or(-1));
    });
}
