#include "entry/ChildProcess.h"

#include <QFile>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace ChildProcess {

namespace {

// Keeps the bytes alive for as long as the pointers into them are used.
struct CStrings {
    explicit CStrings(const QList<QByteArray>& items)
        : storage(items)
    {
        for (const QByteArray& item : storage)
            pointers.push_back(const_cast<char*>(item.constData()));
        pointers.push_back(nullptr);
    }
    QList<QByteArray> storage;
    std::vector<char*> pointers;
};

} // namespace

Spawned spawn(const QString& executable, const QStringList& arguments, const QHash<QString, QString>& environment,
              const QString& directory, int outFd, int errFd)
{
    QList<QByteArray> argv{QFile::encodeName(executable)};
    for (const QString& argument : arguments)
        argv << argument.toUtf8();
    QList<QByteArray> envp;
    for (auto it = environment.begin(); it != environment.end(); ++it)
        envp << (it.key() + QLatin1Char('=') + it.value()).toUtf8();
    CStrings args(argv);
    CStrings env(envp);

    const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (devNull < 0)
        return {-1, errno};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // dup2 onto 0, 1 and 2 clears close-on-exec there; everything else of
    // this program is opened with it and stays behind.
    posix_spawn_file_actions_adddup2(&actions, devNull, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errFd, STDERR_FILENO);
    if (!directory.isEmpty())
        posix_spawn_file_actions_addchdir_np(&actions, QFile::encodeName(directory).constData());

    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    sigset_t all;
    sigfillset(&all);
    // Ignored signals survive exec; a child must not inherit an ignored SIGPIPE.
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
#if defined(POSIX_SPAWN_CLOEXEC_DEFAULT)
    // Where pipes can't be made close-on-exec atomically, nothing but 0, 1 and 2 is passed on.
    flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;
#endif
    posix_spawnattr_setflags(&attributes, flags);

    pid_t pid = -1;
    const int result = posix_spawn(&pid, args.storage.first().constData(), &actions, &attributes,
                                   args.pointers.data(), env.pointers.data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    ::close(devNull);
    if (result != 0)
        return {-1, result};
    return {pid, 0};
}

bool makePipe(int fds[2])
{
#if defined(__linux__)
    return ::pipe2(fds, O_CLOEXEC) == 0;
#else
    if (::pipe(fds) != 0)
        return false;
    ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
    return true;
#endif
}

int statusOf(int waitStatus)
{
    if (WIFEXITED(waitStatus))
        return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus))
        return WTERMSIG(waitStatus);
    return -1;
}

void watchExit(pid_t pid, std::function<void(int)> done)
{
    std::thread([pid, done = std::move(done)] {
        int waitStatus = 0;
        pid_t got;
        do {
            got = ::waitpid(pid, &waitStatus, 0);
        } while (got < 0 && errno == EINTR);
        done(got == pid ? statusOf(waitStatus) : -1);
    }).detach();
}

QString describe(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

} // namespace ChildProcess
