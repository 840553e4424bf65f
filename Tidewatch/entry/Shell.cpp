#include "entry/Shell.h"

#include "entry/ChildProcess.h"
#include "platform/Platform.h"

#include <QMetaObject>
#include <QPointer>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QThreadPool>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr auto kTermGrace = 2s; // after SIGTERM, before SIGKILL
constexpr auto kKillGrace = 1s; // after SIGKILL
constexpr auto kPipeGrace = 2s; // for the pipes after the child's end

/// What the reader threads and the waiter share with the caller. Held by
/// shared pointer: a reader kept alive by a lingering grandchild outlives the call.
struct Buffers {
    std::mutex lock;
    std::condition_variable changed;
    QByteArray out;
    QByteArray err;
    int readersDone = 0;
    bool exited = false;
    int status = -1;
};

// Reads the descriptor to its end in one go and publishes only then: a
// stream cut off by the pipe grace is left empty rather than half there.
void readToEnd(int fd, std::shared_ptr<Buffers> buffers, bool isOut)
{
    std::thread([fd, buffers = std::move(buffers), isOut] {
        QByteArray all;
        char chunk[65536];
        for (;;) {
            const ssize_t got = ::read(fd, chunk, sizeof chunk);
            if (got > 0) {
                all.append(chunk, got);
                continue;
            }
            if (got < 0 && errno == EINTR)
                continue;
            break;
        }
        ::close(fd);
        std::lock_guard guard(buffers->lock);
        (isOut ? buffers->out : buffers->err) = std::move(all);
        ++buffers->readersDone;
        buffers->changed.notify_all();
    }).detach();
}

QThreadPool& shellPool()
{
    // Calls block for up to their limit and more; they get threads of their
    // own rather than starving the shared pool.
    static QThreadPool* pool = [] {
        auto* created = new QThreadPool;
        created->setMaxThreadCount(16);
        created->setExpiryTimeout(30000);
        return created;
    }();
    return *pool;
}

} // namespace

QString ShellResult::combined() const
{
    QStringList parts;
    if (!out.isEmpty())
        parts << out;
    if (!err.isEmpty())
        parts << err;
    return parts.join(QLatin1Char('\n'));
}

QString Shell::searchPath()
{
    return QStringList{platform::systemHomeDirectory() + QStringLiteral("/.local/bin"), QStringLiteral("/opt/homebrew/bin"),
                       QStringLiteral("/usr/local/bin"), QStringLiteral("/usr/bin"), QStringLiteral("/bin"),
                       QStringLiteral("/usr/sbin"), QStringLiteral("/sbin")}
        .join(QLatin1Char(':'));
}

Shell::Environment Shell::environment()
{
    const QProcessEnvironment system = QProcessEnvironment::systemEnvironment();
    Environment environment;
    for (const QString& key : system.keys())
        environment.insert(key, system.value(key));
    const QString inherited = environment.value(QStringLiteral("PATH"));
    environment.insert(QStringLiteral("PATH"),
                       inherited.isEmpty() ? searchPath() : searchPath() + QLatin1Char(':') + inherited);
    environment.insert(QStringLiteral("HOME"), platform::systemHomeDirectory());
    if (!environment.contains(QStringLiteral("LANG")))
        environment.insert(QStringLiteral("LANG"), QStringLiteral("en_US.UTF-8"));
    return environment;
}

ShellResult Shell::run(const QString& executable, const QStringList& arguments,
                       const std::optional<Environment>& environment, const QString& directory, double timeoutSeconds)
{
    int outPipe[2];
    int errPipe[2];
    if (!ChildProcess::makePipe(outPipe))
        return {-1, {}, ChildProcess::describe(errno), false};
    if (!ChildProcess::makePipe(errPipe)) {
        const int error = errno;
        ::close(outPipe[0]);
        ::close(outPipe[1]);
        return {-1, {}, ChildProcess::describe(error), false};
    }

    const ChildProcess::Spawned child = ChildProcess::spawn(executable, arguments, environment.value_or(Shell::environment()),
                                                            directory, outPipe[1], errPipe[1]);
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    if (child.pid < 0) {
        ::close(outPipe[0]);
        ::close(errPipe[0]);
        return {-1, {}, ChildProcess::describe(child.error), false};
    }

    auto buffers = std::make_shared<Buffers>();
    readToEnd(outPipe[0], buffers, true);
    readToEnd(errPipe[0], buffers, false);
    ChildProcess::watchExit(child.pid, [buffers](int status) {
        std::lock_guard guard(buffers->lock);
        buffers->exited = true;
        buffers->status = status;
        buffers->changed.notify_all();
    });

    std::unique_lock lock(buffers->lock);
    const auto exited = [&] { return buffers->exited; };
    const auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::duration<double>(std::max(0.0, timeoutSeconds)));
    bool timedOut = false;
    if (!buffers->changed.wait_for(lock, limit, exited)) {
        timedOut = true;
        ::kill(child.pid, SIGTERM);
        if (!buffers->changed.wait_for(lock, kTermGrace, exited)) {
            ::kill(child.pid, SIGKILL);
            buffers->changed.wait_for(lock, kKillGrace, exited);
        }
    }
    buffers->changed.wait_for(lock, kPipeGrace, [&] { return buffers->readersDone == 2; });

    return {buffers->exited ? buffers->status : -1, QString::fromUtf8(buffers->out).trimmed(),
            QString::fromUtf8(buffers->err).trimmed(), timedOut};
}

void Shell::runAsync(const QString& executable, const QStringList& arguments,
                     const std::optional<Environment>& environment, double timeoutSeconds, QObject* context,
                     std::function<void(ShellResult)> done)
{
    QPointer<QObject> receiver = context;
    shellPool().start([=, done = std::move(done)] {
        ShellResult result = run(executable, arguments, environment, QString(), timeoutSeconds);
        if (!receiver)
            return;
        QMetaObject::invokeMethod(
            receiver, [done, result = std::move(result)] { done(result); }, Qt::QueuedConnection);
    });
}

QString Shell::stripEscapes(const QString& text)
{
    static const QRegularExpression csi(QStringLiteral("\x1B\\[[0-9;?]*[ -/]*[@-~]"));
    static const QRegularExpression osc(QStringLiteral("\x1B\\][^\x07]*\x07"));
    QString stripped = text;
    stripped.remove(csi);
    stripped.remove(osc);
    return stripped;
}
