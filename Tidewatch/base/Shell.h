#pragma once

#include "base/ShellResult.h"

#include <QHash>
#include <QString>
#include <QStringList>

#include <array>
#include <functional>
#include <optional>

#include <sys/types.h>

class QObject;

/// Runs an outside program to its end and gives back everything at once,
/// under a hard time limit. No shell line is interpreted: the caller names an
/// absolute executable and its arguments.
///
/// The child stays in this program's process group, and the signals of the
/// time limit go to its pid alone: a tool may leave a background process
/// behind on purpose (a service it started), and that one isn't ours to end.
class Shell
{
public:
    using Environment = QHash<QString, QString>;

    /// The folders searched before the inherited PATH: the real user's
    /// ~/.local/bin (from the user database, never a test copy's home), then
    /// the usual package and system folders.
    static QString searchPath();
    /// The program's own environment with PATH led by searchPath(), HOME from
    /// the user database and LANG set to en_US.UTF-8 when absent: an app
    /// started by the login window can't be trusted to have them.
    static Environment environment();

    /// Blocks until the child ends; never on the main thread (use runAsync
    /// there). Standard input is /dev/null. With no environment, environment()
    /// is used; a given one replaces it whole. An empty directory keeps ours.
    ///
    /// The time limit covers the child: past it comes SIGTERM, 2 s later
    /// SIGKILL. Its pipes get 2 s after its end, so a background process that
    /// inherited them can't hold the caller up; such a stream comes back
    /// empty, not partial. Worst case: timeoutSeconds + 5 s. Never throws.
    static ShellResult run(const QString& executable, const QStringList& arguments,
        const std::optional<Environment>& environment = std::nullopt, const QString& directory = QString(),
        double timeoutSeconds = 30);

    /// run() on a worker thread. The result reaches done on the thread of
    /// context, through its event loop, and not at all once context is gone.
    static void runAsync(const QString& executable, const QStringList& arguments,
        const std::optional<Environment>& environment, double timeoutSeconds, QObject* context,
        const std::function<void(const ShellResult&)>& done);

    /// Starts a program that outlives the call, such as a terminal window,
    /// and doesn't wait for it: its output goes to /dev/null, no time limit
    /// applies, and it is reaped on a thread of its own when it ends. The
    /// sentence of a failed start, or none.
    static std::optional<QString> launch(const QString& executable, const QStringList& arguments,
        const std::optional<Environment>& environment = std::nullopt);

    /// Removes terminal control sequences: CSI (colours, cursor moves) and
    /// OSC (window titles, ended by BEL).
    static QString stripEscapes(const QString& text);

private:
    friend class StreamingProcess;

    struct Child {
        pid_t pid = -1;
        /// errno of a failed start; 0 on success.
        int error = 0;
    };

    /// Starts executable with standard input from /dev/null and standard
    /// output and error onto the given descriptors. Nothing else of this
    /// program is passed on, and the child starts with default signal
    /// handling whatever this program ignores.
    static Child spawn(const QString& executable, const QStringList& arguments, const Environment& environment,
        const QString& directory, int outFd, int errFd);
    /// A pipe whose ends are closed on exec; false with errno set on failure.
    using Pipe = std::array<int, 2>;
    static bool makePipe(Pipe& fds);
    /// Blocks until the child has ended, without reaping it: until it is
    /// reaped its pid can't go to another process, so it is safe to signal.
    static void awaitEnd(pid_t pid);
    /// Reaps an ended child (blocks while it runs): its exit code, or the
    /// number of the signal that ended it; -1 when it can't be told.
    static int reap(pid_t pid);
    /// The system's sentence for an errno.
    static QString describe(int error);
};
