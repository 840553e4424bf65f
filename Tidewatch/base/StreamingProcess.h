#pragma once

#include "base/Shell.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>

/// Runs a long job and hands over its output line by line while it runs, as
/// a person would see it in a terminal: standard output and error are one
/// ordered stream, and a carriage return that redraws a progress line ends a
/// line of its own. Single use.
///
/// Each process has a thread of its own that holds all of its state; the
/// callbacks run there, one at a time, so a consumer that updates a screen
/// hops to the main thread itself. onExit comes exactly once, and no line
/// after it. The exit is reported at the latest 2 s after the child's end,
/// even when a background process it left keeps the output open.
///
/// Hold the object until onExit has run. One let go of earlier falls silent:
/// the child runs on, its output is drained and dropped, and it is reaped
/// when it ends.
class StreamingProcess
{
public:
    using LineHandler = std::function<void(const QString& line)>;
    using ExitHandler = std::function<void(int status)>;

    StreamingProcess();
    /// No callback runs once this returns; called from inside a callback, none
    /// runs after that one.
    ~StreamingProcess();

    StreamingProcess(const StreamingProcess&) = delete;
    StreamingProcess& operator=(const StreamingProcess&) = delete;

    /// Returns at once; a second call does nothing. Standard input is
    /// /dev/null; the environment follows Shell::run's rule. A child that
    /// can't start gives the line "Couldn't start: " and the reason, then
    /// onExit(-1). The status is the exit code, or the signal's number.
    void start(const QString& executable, const QStringList& arguments,
        const std::optional<Shell::Environment>& environment, LineHandler onLine, ExitHandler onExit);

    /// Takes the complete lines out of buffer (CR or LF ends one), each
    /// repaired as UTF-8, stripped of escapes and trimmed of spaces and tabs;
    /// blank ones are dropped. With flush, what remains is a last line too.
    static QStringList takeLines(QByteArray& buffer, bool flush);

private:
    struct Shared;
    static void pump(const std::shared_ptr<Shared>& shared, int fd, int launchError);

    std::shared_ptr<Shared> m_shared;
    bool m_started = false;
};
