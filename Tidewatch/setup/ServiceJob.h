#pragma once

#include "entry/Environment.h"

#include <QHash>
#include <QString>

#include <optional>

/// The job file the system's service manager runs the background service
/// from — a launchd property list on macOS, a systemd user unit on Linux —
/// and what is read back from it and from the manager's own tools. All text
/// in and out, so both systems' forms are built and tested anywhere.
namespace ServiceJob {

/// What a job runs: the service on one Node.js, in its folder, with its
/// environment, appending to its log.
struct Spec {
    QString label;
    QString nodePath;
    QString daemonFolder;
    QString logFile;
    QHash<QString, QString> variables;
};

/// The service's PATH: the Node.js's own folder first, then the user's and the
/// system's tool folders, each once.
QString servicePath(const QString& nodePath, const QString& home);
/// PATH, HOME and LANG, with a test copy's own four variables over them.
QHash<QString, QString> serviceVariables(const Environment& environment, const QString& nodePath);
Spec specFor(const Environment& environment, const QString& nodePath);

QString launchAgentPlist(const Spec& spec);
QString systemdUnit(const Spec& spec);

/// The Node.js a job file starts (its first program argument), for either form.
std::optional<QString> nodePathOf(const QString& jobText);

/// Whether the service shipped with the app differs from the installed one:
/// any difference of build stamps counts, a downgrade too.
bool updateAvailable(const std::optional<QString>& bundledDaemon, const QString& installedDaemon);

/// The first line of `lsof -t`, as a process id.
std::optional<int> pidFromLsof(const QString& output);
/// The "pid = " line of `launchctl print`.
std::optional<int> pidFromLaunchctl(const QString& output);
/// "MainPID=" of `systemctl show`; 0 means no process.
std::optional<int> pidFromSystemctl(const QString& output);

} // namespace ServiceJob
