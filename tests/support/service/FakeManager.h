#pragma once

#include "ScratchFolder.h"

#include "setup/OutsideTools.h"

#include <QString>
#include <QStringList>

/// The fake systemctl and launchctl of tests/fakes, set up in a scratch
/// folder: small programs at absolute paths, as the real tools have, and one
/// state folder that is the "manager". Every job still running when this
/// goes is stopped.
class FakeManager
{
public:
    explicit FakeManager(const ScratchFolder& scratch);
    ~FakeManager();

    QString systemctl() const { return m_folder + QStringLiteral("/bin/systemctl"); }
    QString launchctl() const { return m_folder + QStringLiteral("/bin/launchctl"); }
    QString stateFolder() const { return m_folder + QStringLiteral("/state"); }

    /// The table of outside tools with this manager in it, the machine's own
    /// lsof and tar, and no folder where a stable Node.js could be.
    OutsideTools tools(platform::ServiceManagerKind kind) const;

    /// Answers as a machine without a user session of systemd does.
    void dropBus() const;
    /// The next `count` starts fail.
    void refuse(int count) const;
    /// Every call made, one per line, as "systemctl --user show …".
    QStringList calls() const;

private:
    const ScratchFolder& m_scratch;
    QString m_folder;
};
