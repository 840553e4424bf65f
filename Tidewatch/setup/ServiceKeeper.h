#pragma once

#include "setup/ServiceInstaller.h"

#include <QObject>
#include <QString>

#include <functional>
#include <optional>

class QThread;

/// The app model's hands on the service: Repair, Update and Restart, one at
/// a time, each run off the main thread with its progress and its end
/// delivered back on the main thread. The sentences are finished notes for
/// the model's showNote; none means it went well.
class ServiceKeeper : public QObject
{
    Q_OBJECT

public:
    /// Builds the installer for one job, on the worker thread.
    using Build = std::function<ServiceInstaller()>;
    using Note = std::optional<QString>;

    explicit ServiceKeeper(QObject* parent = nullptr);
    explicit ServiceKeeper(Build build, QObject* parent = nullptr);
    /// Waits for a job still running: the service must not be left half-installed by the app's own hand.
    ~ServiceKeeper() override;

    bool busy() const { return m_thread != nullptr; }
    /// What builds the installer of the jobs to come.
    void setBuild(Build build) { m_build = std::move(build); }

    /// The whole install again, with Node.js chosen afresh. False when
    /// another job runs; otherwise progress comes as each step begins, and
    /// done gets "The repair didn’t finish. " and the reason, or none.
    bool repair(std::function<void(const ServiceInstaller::Progress&)> progress, std::function<void(Note)> done);
    /// The same install, for a newer service shipped with the app. done gets
    /// the note and, after a success, whether the login item is on now.
    bool update(std::function<void(Note, bool loginItemEnabled)> done);
    /// Restarts the service through its manager (starting it anew when the
    /// manager had let go of it) and waits up to 20 s for it to answer. The
    /// only note is the refusal of a test copy that may not touch a service.
    bool restart(std::function<void(Note)> done);

    /// Takes Tidewatch off this machine (see Uninstaller), with Backpack's
    /// password dialog from inside the app. done gets the notes; empty means
    /// all went well.
    bool uninstall(bool deleteData, std::function<void(QStringList notes)> done);

    static inline const QString repairOpening = QStringLiteral("The repair didn’t finish. ");
    static inline const QString updateOpening = QStringLiteral("The update didn’t finish. ");
    static constexpr double restartHealthLimit = 20;

private:
    void start(std::function<std::function<void()>()> work);

    Build m_build;
    QThread* m_thread = nullptr;
};
