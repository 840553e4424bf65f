#include "base/Shell.h"

#include "base/UserAccount.h"

#include <QFile>
#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QThread>
#include <QThreadPool>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <spawn.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr auto kTermGrace = 2s; // after SIGTERM, before SIGKILL
constexpr auto kKillGrace = 1s; // after SIGKILL
constexpr auto kPipeGrace = 2s; // for the pipes after the child's end

// Keeps the bytes alive for as long as the pointers into them are used.
struct CStrings {
    explicit CStrings(QList<QByteArray> items)
        : storage(std::move(items))
    {
        for (const QByteArray& item : storage)
            pointers.push_back(const_cast<char*>(item.constData()));
        pointers.push_back(nullptr);
    }
    QList<QByteArray> storage;
    std::vector<char*> pointers;
};

// A descriptor among 0, 1 and 2 (possible when this program was started with
// one of them closed) would be overwritten in the child before it is copied;
// a copy above them can't be.
int aboveStandard(int fd, std::vector<int>& copies)
{
    if (fd > STDERR_FILENO)
        return fd;
    const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (copy >= 0)
        copies.push_back(copy);
    return copy;
}

int statusOf(int waitStatus)
{
    if (WIFEXITED(waitStatus))
        return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus))
        return WTERMSIG(waitStatus);
    return -1;
}

// Starts work on a thread of its own; false when the system has no thread to give.
bool detach(std::function<void()> work)
{
    try {
        std::thread(std::move(work)).detach();
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

/// What the reader threads and the exit waiter share with the caller. Held by
/// shared pointer: a reader kept alive by a lingering background process
/// outlives the call.
struct Run {
    std::mutex lock;
    std::condition_variable changed;
    QByteArray out;
    QByteArray err;
    int readersDone = 0;
    bool exited = false;
    int status = -1;
    /// The caller has stopped waiting; what still comes is drained and dropped,
    /// so a background process that writes on is neither blocked nor killed.
    std::atomic<bool> abandoned{false};
};

// Reads the descriptor to its end and publishes only then: a stream cut off
// by the pipe grace is left empty rather than half there.
void readToEnd(int fd, const std::shared_ptr<Run>& run, QByteArray Run::*stream)
{
    QByteArray all;
    std::array<char, 65536> chunk{};
    for (;;) {
        const ssize_t got = ::read(fd, chunk.data(), chunk.size());
        if (got > 0) {
            if (run->abandoned.load(std::memory_order_relaxed))
                all.clear();
            else
                all.append(chunk.data(), got);
            continue;
        }
        if (got < 0 && errno == EINTR)
            continue;
        break;
    }
    ::close(fd);
    std::lock_guard guard(run->lock);
    if (!run->abandoned)
        (*run).*stream = std::move(all);
    ++run->readersDone;
    run->changed.notify_all();
}

// strerror may share one buffer among threads; the category's message doesn't.
QString sentenceFor(int error)
{
    return QString::fromStdString(std::generic_category().message(error));
}

ShellResult failedStart(int error)
{
    return {-1, QString(), sentenceFor(error), false};
}

QString decoded(const QByteArray& bytes)
{
    return QString::fromUtf8(bytes).trimmed();
}

// The user's home never changes while we run, and the user database isn't
// safe to read from several threads at once.
const QString& realHome()
{
    static const QString home = account::homeDirectory();
    return home;
}

QThreadPool& shellPool()
{
    // Calls block for as long as their children run; they get a pool of their
    // own rather than starving the shared one.
    static QThreadPool* const pool = [] {
        auto* created = new QThreadPool;
        created->setMaxThreadCount(32);
        created->setExpiryTimeout(30000);
        return created;
    }();
    return *pool;
}

} // namespace

QString ShellResult::combined() const
{
    if (out.isEmpty())
        return err;
    if (err.isEmpty())
        return out;
    return out + QLatin1Char('\n') + err;
}

QString Shell::searchPath()
{
    return QStringList{realHome() + QStringLiteral("/.local/bin"), QStringLiteral("/opt/homebrew/bin"),
        QStringLiteral("/usr/local/bin"), QStringLiteral("/usr/bin"), QStringLiteral("/bin"),
        QStringLiteral("/usr/sbin"), QStringLiteral("/sbin")}
        .join(QLatin1Char(':'));
}

Shell::Environment Shell::environment()
{
    const QProcessEnvironment system = QProcessEnvironment::systemEnvironment();
    Environment environment;
    const QStringList keys = system.keys();
    for (const QString& key : keys)
        environment.insert(key, system.value(key));
    const auto inherited = environment.constFind(QStringLiteral("PATH"));
    environment.insert(QStringLiteral("PATH"),
        inherited == environment.cend() ? searchPath() : searchPath() + QLatin1Char(':') + *inherited);
    environment.insert(QStringLiteral("HOME"), realHome());
    if (!environment.contains(QStringLiteral("LANG")))
        environment.insert(QStringLiteral("LANG"), QStringLiteral("en_US.UTF-8"));
    return environment;
}

ShellResult Shell::run(const QString& executable, const QStringList& arguments,
    const std::optional<Environment>& environment, const QString& directory, double timeoutSeconds)
{
    Pipe outPipe{};
    Pipe errPipe{};
    if (!makePipe(outPipe))
        return failedStart(errno);
    if (!makePipe(errPipe)) {
        const int error = errno;
        ::close(outPipe[0]);
        ::close(outPipe[1]);
        return failedStart(error);
    }

    const Child child = spawn(
        executable, arguments, environment ? *environment : Shell::environment(), directory, outPipe[1], errPipe[1]);
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    if (child.pid < 0) {
        ::close(outPipe[0]);
        ::close(errPipe[0]);
        return failedStart(child.error);
    }

    auto run = std::make_shared<Run>();
    const pid_t pid = child.pid;
    const bool watched = detach([pid, run] {
        awaitEnd(pid);
        // Reaped under the lock, so the caller never signals a pid that is no longer its child.
        std::lock_guard guard(run->lock);
        run->status = reap(pid);
        run->exited = true;
        run->changed.notify_all();
    });
    if (!watched) {
        ::kill(pid, SIGKILL);
        ::close(outPipe[0]);
        ::close(errPipe[0]);
        reap(pid);
        return failedStart(EAGAIN);
    }
    for (const auto& [readEnd, member] : {std::pair{outPipe[0], &Run::out}, std::pair{errPipe[0], &Run::err}}) {
        const int fd = readEnd;
        QByteArray Run::*const stream = member;
        if (!detach([fd, run, stream] { readToEnd(fd, run, stream); })) {
            // Without a reader the stream is lost; the child then meets a closed pipe, not a full one.
            ::close(fd);
            std::lock_guard guard(run->lock);
            ++run->readersDone;
        }
    }

    const double seconds = std::isnan(timeoutSeconds) ? 0.0 : std::clamp(timeoutSeconds, 0.0, 1e7);
    const auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
    const auto exited = [&run] { return run->exited; };

    std::unique_lock lock(run->lock);
    bool timedOut = false;
    if (!run->changed.wait_for(lock, limit, exited)) {
        timedOut = true;
        ::kill(pid, SIGTERM);
        if (!run->changed.wait_for(lock, kTermGrace, exited)) {
            ::kill(pid, SIGKILL);
            run->changed.wait_for(lock, kKillGrace, exited);
        }
    }
    run->changed.wait_for(lock, kPipeGrace, [&run] { return run->readersDone == 2; });
    run->abandoned = true;
    const int status = run->exited ? run->status : -1;
    const QByteArray out = std::exchange(run->out, {});
    const QByteArray err = std::exchange(run->err, {});
    lock.unlock();
    return {status, decoded(out), decoded(err), timedOut};
}

void Shell::runAsync(const QString& executable, const QStringList& arguments,
    const std::optional<Environment>& environment, double timeoutSeconds, QObject* context,
    const std::function<void(const ShellResult&)>& done)
{
    if (!context)
        return;
    // The result is posted to a relay of our own on context's thread, which
    // nobody else deletes; whether context still lives is asked there, on its
    // own thread, where it can't die in between.
    auto* relay = new QObject;
    relay->moveToThread(context->thread());
    const QPointer<QObject> receiver(context);
    shellPool().start([=] {
        const ShellResult result = run(executable, arguments, environment, QString(), timeoutSeconds);
        QMetaObject::invokeMethod(
            relay,
            [relay, receiver, done, result] {
                if (receiver)
                    done(result);
                relay->deleteLater();
            },
            Qt::QueuedConnection);
    });
}

std::optional<QString> Shell::launch(
    const QString& executable, const QStringList& arguments, const std::optional<Environment>& environment)
{
    const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (devNull < 0)
        return describe(errno);
    const Child child
        = spawn(executable, arguments, environment ? *environment : Shell::environment(), QString(), devNull, devNull);
    ::close(devNull);
    if (child.pid < 0)
        return describe(child.error);
    const pid_t pid = child.pid;
    if (!detach([pid] { reap(pid); })) {
        // Without a reaper it would stay a zombie; the window it opened is not worth that.
        ::kill(pid, SIGKILL);
        reap(pid);
        return describe(EAGAIN);
    }
    return std::nullopt;
}

QString Shell::stripEscapes(const QString& text)
{
    // Never destroyed: a stream's thread may still be at work while the program exits.
    static const auto* const csi = new QRegularExpression(QStringLiteral("\x1B\\[[0-9;?]*[ -/]*[@-~]"));
    static const auto* const osc = new QRegularExpression(QStringLiteral("\x1B\\][^\x07]*\x07"));
    if (!text.contains(QLatin1Char('\x1B')))
        return text;
    QString stripped = text;
    stripped.remove(*csi);
    stripped.remove(*osc);
    return stripped;
}

Shell::Child Shell::spawn(const QString& executable, const QStringList& arguments, const Environment& environment,
    const QString& directory, int outFd, int errFd)
{
    QList<QByteArray> argv{QFile::encodeName(executable)};
    for (const QString& argument : arguments)
        argv << argument.toUtf8();
    QList<QByteArray> envp;
    for (auto it = environment.cbegin(); it != environment.cend(); ++it)
        envp << (it.key() + QLatin1Char('=') + it.value()).toUtf8();
    const CStrings args(std::move(argv));
    const CStrings env(std::move(envp));
    const QByteArray folder = QFile::encodeName(directory);

    const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (devNull < 0)
        return {-1, errno};
    std::vector<int> copies{devNull};
    const int in = aboveStandard(devNull, copies);
    const int out = aboveStandard(outFd, copies);
    const int err = aboveStandard(errFd, copies);
    const auto closeCopies = [&copies] {
        for (int fd : copies)
            ::close(fd);
    };
    if (in < 0 || out < 0 || err < 0) {
        const int error = errno;
        closeCopies();
        return {-1, error};
    }

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // dup2 onto 0, 1 and 2 clears close-on-exec there.
    posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
    // Our own descriptors are close-on-exec, but not every library's are; and
    // a child that inherits someone else's pipe keeps that one from ending.
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
#endif
    if (!directory.isEmpty())
        posix_spawn_file_actions_addchdir_np(&actions, folder.constData());

    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    sigset_t all;
    sigfillset(&all);
    // Ignored signals survive exec; a child must not inherit a SIGPIPE that
    // this program (or a library in it) ignores.
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
#if defined(POSIX_SPAWN_CLOEXEC_DEFAULT)
    // macOS: nothing but 0, 1 and 2 is passed on.
    flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;
#endif
    posix_spawnattr_setflags(&attributes, flags);

    pid_t pid = -1;
    const int result = ::posix_spawn(
        &pid, args.storage.first().constData(), &actions, &attributes, args.pointers.data(), env.pointers.data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    closeCopies();
    if (result != 0)
        return {-1, result};
    return {pid, 0};
}

bool Shell::makePipe(Pipe& fds)
{
#if defined(__linux__)
    return ::pipe2(fds.data(), O_CLOEXEC) == 0;
#else
    // No pipe2 here; POSIX_SPAWN_CLOEXEC_DEFAULT keeps the window harmless for our own children.
    if (::pipe(fds.data()) != 0)
        return false;
    ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
    return true;
#endif
}

void Shell::awaitEnd(pid_t pid)
{
    siginfo_t info{};
    while (::waitid(P_PID, id_t(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) { }
}

int Shell::reap(pid_t pid)
{
    int waitStatus = 0;
    pid_t got;
    do {
        got = ::waitpid(pid, &waitStatus, 0);
    } while (got < 0 && errno == EINTR);
    return got == pid ? statusOf(waitStatus) : -1;
}

QString Shell::describe(int error)
{
    return sentenceFor(error);
}
