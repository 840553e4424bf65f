#pragma once

#include "entry/Environment.h"

#include <QString>

#include <optional>

/// The login item that opens the app at login, as this copy may touch it: a
/// test copy never does, and never counts the person's item as its own.
namespace LoginItem {

/// Open at Login is on for this copy.
bool isEnabled(const Environment& environment);

/// At start: the item the person wants and the system lost is registered
/// again, where the running program can be opened at login. A failure passes
/// in silence. Whether the item is on afterwards.
bool reconcile(const Environment& environment);

/// How a switch of the item went.
struct Change {
    bool enabled = false;
    /// The system's words when it refused.
    std::optional<QString> failure;
};
/// Registers or unregisters the item and remembers the person's wish.
Change set(const Environment& environment, bool on);

/// The line a failed change leaves in the output; it is never shown.
QString failureLine(const QString& reason);

} // namespace LoginItem
