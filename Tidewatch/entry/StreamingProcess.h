#pragma once

#include "entry/Shell.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>
#include <thread>

/// Runs a long job and hands over its output line by line while it runs, as
/// a person would see it in a terminal: standard output and error are one
/// ordered stream, and a carriage return that redraws a progress line ends a
/// line of its own. Callbacks run on the process's own thread, one at a time;
/// onExit comes exactly once and no line after it. Single use.
class StreamingProcess
{
public:
    StreamingProcess();
    /// Ends the listening: no callback runs once this returns. The child
    /// goes on and is reaped when it ends.
    ~StreamingProcess();

    StreamingProcess(const StreamingProcess&) = delete;
    StreamingProcess& operator=(const StreamingProcess&) = delete;

    /// Returns at once. A child that can't start gives the line
    /// "Couldn't start: " and the reason, then onExit(-1).
    void start(const QString& executable, const QStringList& arguments,
               const std::optional<Shell::Environment>& environment, std::function<void(const QString&)> onLine,
               std::function<void(int status)> onExit);

    /// Takes the complete lines out of buffer (CR or LF ends one), each
    /// repaired, stripped of escapes and trimmed; blank ones are dropped. With
    /// flush, what remains is a last line too.
    static QStringList takeLines(QByteArray& buffer, bool flush);

private:
    struct Shared;
    std::shared_ptr<Shared> m_shared;
    std::thread m_thread;
};
