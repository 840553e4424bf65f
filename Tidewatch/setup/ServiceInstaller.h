#pragma once

#include "base/Outcome.h"
#include "entry/Environment.h"
#include "link/Health.h"
#include "setup/Detection.h"
#include "setup/OutsideTools.h"
#include "setup/ServiceManager.h"

#include <QString>
#include <QStringList>
#include <QUrl>

#include <functional>
#include <optional>

/// Puts the background service on this machine and keeps it there: copies
/// the service shipped with the app into the app's own folder (staged beside
/// it, switched in one step), writes the job file that runs it on a chosen
/// Node.js, hands that to the system's service manager and proves that the
/// service answers. First install, update and repair are the same idempotent
/// operation. Every call blocks; run it off the main thread.
class ServiceInstaller
{
public:
    /// Where an install stands; each step is reported once as it begins,
    /// but gettingNode repeats with its fraction.
    struct Progress {
        enum class Step { GettingNode, Copying, FetchingSDK, Writing, Starting, Waiting };
        Step step = Step::Copying;
        /// How much of Node.js has come, while getting it; none when unknown.
        std::optional<double> fraction;

        bool operator==(const Progress&) const = default;
    };
    using ProgressSink = std::function<void(const Progress&)>;

    struct State {
        /// The job file exists.
        bool jobFileExists = false;
        /// The installed copy has its entry file.
        bool installedDaemon = false;
        /// A health reply was passed in.
        bool healthy = false;
        std::optional<QString> daemonName;
        bool updateAvailable = false;
        /// The service manager keeps the job.
        bool managerKeepsJob = false;

        bool operator==(const State&) const = default;
    };

    /// What the installer works with; tests replace parts of it.
    struct Parts {
        Environment environment = Environment::current();
        OutsideTools tools = OutsideTools::current();
        /// The service shipped with the app.
        std::optional<QString> bundledDaemon = Environment::current().bundledDaemonFolder();
        /// The terminal relay shipped with the app; without it sessions run unshared.
        std::optional<QString> bundledRelay = Environment::current().bundledRelay();
        QUrl nodeSite;
        /// One health probe; by default the service's health route on the API port.
        std::function<std::optional<Health>(double timeoutSeconds)> health;
        /// Waits; tests count the pauses instead.
        std::function<void(double seconds)> pause;
        /// How long a fresh start may take to answer.
        double healthLimit = 40;
    };

    /// For the real install: this process's environment and tools.
    ServiceInstaller();
    explicit ServiceInstaller(Parts parts);
    /// For the install of that copy: its own tools and the service shipped beside it.
    static ServiceInstaller forCopy(const Environment& environment);

    const Environment& environment() const { return m_parts.environment; }
    const ServiceManager& manager() const { return m_manager; }
    /// The job file: the property list or the unit.
    QString jobFile() const;

    /// Why this copy may not manage a service; none when it may.
    std::optional<QString> refusal() const;

    /// The whole operation: choose or get Node.js, install, and on a first
    /// install of a real copy the login item. Gives the health reply.
    Outcome<Health> installAll(const ProgressSink& progress);
    Outcome<Health> install(const QString& nodePath, const ProgressSink& progress);

    /// Outcome<bool> stands for "done or the sentence why not".
    Outcome<bool> copyDaemon();
    Outcome<bool> copyRelay();
    Outcome<bool> writeJobFile(const QString& nodePath);
    void stop();
    Outcome<bool> start();
    bool restart();
    /// Stops the service, removes its job file and the app folder. Never fails.
    void uninstall();

    State state(const std::optional<Health>& health) const;
    bool updateAvailable() const;
    /// The Node.js the installed job file starts.
    std::optional<QString> installedNodePath() const;
    /// The Node.js the installed service ran on, when it is no longer a
    /// program that can start: what makes a repair necessary.
    std::optional<QString> serviceNodeGone() const;
    /// The last `count` non-empty lines of the service's log; empty when it can't be read.
    QStringList logTail(int count) const;
    std::optional<int> pidOnPort(int port) const;
    std::optional<int> servicePID() const;
    /// One health probe: the reply when the service answers with ok true.
    std::optional<Health> probeHealth() const;
    /// Asks for health until a reply with ok true comes or the limit passes.
    std::optional<Health> pollHealth(double limitSeconds) const;

    /// The command a person runs to start the service where no service
    /// manager will: its variables, Node.js and entry file, quoted for a shell.
    QString commandByHand(const QString& nodePath) const;

    /// The console line as a step begins; empty for a step that prints nothing.
    static QString progressLine(const Progress& progress, const ServiceManager& manager);
    /// Copies a service folder, links as links and modes as they are, leaving
    /// its tests behind. The failure's sentence, or none.
    static std::optional<QString> copyServiceFolder(const QString& from, const QString& to);

private:
    ShellResult run(const ServiceManager::Command& command) const;
    Detection detection() const;

    Parts m_parts;
    ServiceManager m_manager;
};
