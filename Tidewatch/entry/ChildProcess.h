#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

#include <functional>

#include <sys/types.h>

/// The one place that starts and reaps children, shared by Shell and
/// StreamingProcess.
namespace ChildProcess {

struct Spawned {
    pid_t pid = -1;
    /// errno of a failed start; 0 on success.
    int error = 0;
};

/// Starts executable (an absolute path) with standard input from /dev/null
/// and standard output and error onto the given descriptors. No other
/// descriptor of this program reaches the child, and the child starts with
/// default signal handling whatever this program ignores.
Spawned spawn(const QString& executable, const QStringList& arguments, const QHash<QString, QString>& environment,
              const QString& directory, int outFd, int errFd);

/// A pipe whose ends are closed on exec; false with errno set on failure.
bool makePipe(int fds[2]);

/// A wait status as one number: the exit code, or the signal that ended it.
int statusOf(int waitStatus);

/// Waits for the child on a thread of its own, so nothing else ever has to,
/// and calls done with its status there, exactly once. The child is always
/// reaped, whoever still listens.
void watchExit(pid_t pid, std::function<void(int status)> done);

/// The system's sentence for an errno.
QString describe(int error);

} // namespace ChildProcess
