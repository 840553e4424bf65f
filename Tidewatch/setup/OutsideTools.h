#pragma once

#include "entry/Environment.h"
#include "platform/Platform.h"
#include "platform/Services.h"

#include <QList>
#include <QString>

#include <optional>

namespace platform {
/// ToolFolder has no comparison of its own; the table needs one.
bool operator==(const ToolFolder& a, const ToolFolder& b);
} // namespace platform

/// The one table of outside programs the installers run, by absolute path,
/// and of the folders where the system's packages put Node.js. Tests replace
/// it: in process with replace(), and in a launched test copy through its
/// own preferences (keys "outsideTools/<name>"), which a real copy never reads.
struct OutsideTools {
    platform::SystemTools system;
    /// Where a Node.js that stays put lives, with the words a person knows the place by.
    QList<platform::ToolFolder> nodeFolders;

    /// The tool that drives the service manager this table names.
    QString serviceManagerTool() const
    {
        return system.manager == platform::ServiceManagerKind::Launchd ? system.launchctl : system.systemctl;
    }

    static OutsideTools forThisSystem();
    /// The table in force: a replacement when one is set, else this system's,
    /// with a test copy's own entries over it.
    static OutsideTools current(const Environment& environment = Environment::current());
    /// Sets (or, with none, clears) the process-wide replacement.
    static void replace(std::optional<OutsideTools> tools);

    bool operator==(const OutsideTools&) const = default;
};
