#pragma once

#include "entry/ShellResult.h"

#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

/// Runs an outside program to its end and gives back everything at once,
/// under a hard time limit. No shell line is interpreted: the caller names an
/// absolute executable and its arguments.
class Shell
{
public:
    using Environment = QHash<QString, QString>;

    /// The folders searched before the inherited PATH: the real user's
    /// ~/.local/bin, then the usual system and package folders.
    static QString searchPath();
    /// The program's own environment with PATH led by searchPath(), HOME from
    /// the user database and LANG set when absent: an app started by the
    /// login window can't be trusted to have them.
    static Environment environment();

    /// Blocks until the child ends; never on the main thread. With no
    /// environment, environment() is used; a given one replaces it whole.
    /// The time limit covers the child; its pipes get 2 seconds more, so a
    /// background process that inherited them can't hold the caller up (that
    /// stream then comes back empty, not partial). Worst case: timeout + 5 s.
    static ShellResult run(const QString& executable, const QStringList& arguments,
                           const std::optional<Environment>& environment = std::nullopt,
                           const QString& directory = QString(), double timeoutSeconds = 30);

    /// run() on a worker thread; the result reaches `done` on the thread of
    /// `context`, and not at all once `context` is gone.
    static void runAsync(const QString& executable, const QStringList& arguments,
                         const std::optional<Environment>& environment, double timeoutSeconds, QObject* context,
                         std::function<void(ShellResult)> done);

    /// Removes terminal control sequences (CSI and OSC) from text.
    static QString stripEscapes(const QString& text);
};
