#pragma once

#include "base/ShellResult.h"
#include "platform/Services.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

/// The command lines that drive the system's service manager for the one
/// job of the background service, and the reading of its answers: launchd
/// through launchctl, or systemd's user instance through systemctl --user.
/// Nothing here runs anything, so both systems' forms are tested anywhere.
class ServiceManager
{
public:
    struct Command {
        QString program;
        QStringList arguments;
        double limitSeconds = 15;

        bool operator==(const Command&) const = default;
    };

    /// The job as the manager knows it.
    struct Job {
        QString label;
        /// The job file: the property list, or the unit.
        QString file;
        /// The numeric user id, for launchd's gui/<uid> domain.
        unsigned uid = 0;
        /// A test copy's unit lives in its own support folder; systemd gets a
        /// runtime link to it, which nothing of the user's own configuration sees.
        bool testCopy = false;

        bool operator==(const Job&) const = default;
    };

    ServiceManager(platform::ServiceManagerKind kind, QString tool, Job job);

    platform::ServiceManagerKind kind() const { return m_kind; }
    const Job& job() const { return m_job; }
    /// "launchd" or "systemd", as sentences name it.
    QString name() const;
    /// How the progress line names the start: "launchctl bootout + bootstrap"…
    QString startWords() const;
    /// The job file's name ending.
    static QString fileSuffix(platform::ServiceManagerKind kind);

    /// Ends the job and makes the manager let go of it. Results are ignored:
    /// the job may simply not be there.
    QList<Command> unload() const;
    /// Asks the manager about the job.
    Command probe() const;
    /// Hands the job file to the manager and starts it; every command must succeed, in order.
    QList<Command> load() const;
    /// Ends the job's process and starts it again.
    Command restart() const;
    /// What makes the manager forget a job whose file is gone.
    QList<Command> forget() const;

    /// The manager knows the job and keeps it (running, or about to run again).
    bool knows(const ShellResult& probe) const;
    /// The job has let go of its process: the wait after unload() ends.
    bool hasLetGo(const ShellResult& probe) const;
    /// The job's running process.
    std::optional<int> pid(const ShellResult& probe) const;
    /// The run failed because this login has no user instance of the manager
    /// to talk to (a container, some WSL): retrying won't help.
    static bool noUserSession(const ShellResult& result);

private:
    Command systemctl(QStringList arguments, double limitSeconds = 15) const;
    QString unitName() const;
    QString address() const;
    /// One property's value from `systemctl show` output; empty when absent.
    static QString property(const QString& output, const QString& name);

    platform::ServiceManagerKind m_kind;
    QString m_tool;
    Job m_job;
};
