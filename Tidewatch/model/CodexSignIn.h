#pragma once

#include "entry/Environment.h"
#include "platform/Services.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

/// Codex's sign-in in a terminal window of its own: a small script that says
/// what happens and runs codex login, written where only this user can read
/// it, and a terminal opened on it the way the system opens one.
namespace CodexSignIn {

/// The longest path of Codex put into a script.
inline constexpr qsizetype kMaxPath = 1024;

/// Why this path of Codex can't go into the script, or none: it must be an
/// absolute path of at most kMaxPath characters without control characters,
/// naming a program that can run.
std::optional<QString> refusedPath(const QString& path);
/// One word for the shell in single quotes, taken literally whatever it holds.
QString shellQuoted(const QString& word);

/// The script: what is about to happen, codex login (the given program, or
/// the one on the PATH), and how it ended. The path must have passed refusedPath().
QByteArray script(const std::optional<QString>& codexPath);

/// Where the script goes: a folder of its own in the support folder.
QString scriptFolder(const Environment& environment);
QString scriptPath(const Environment& environment, platform::TerminalKind kind);
/// What the terminal program is given to open a window on the script.
QStringList terminalArguments(platform::TerminalKind kind, const QString& scriptPath);

/// Writes the script (0700, atomically, in a 0700 folder) and opens the
/// terminal on it. Blocks for the file's flush; run it off the main thread.
/// The sentence of a failure, or none.
std::optional<QString> open(
    const Environment& environment, const platform::SystemTools& tools, const std::optional<QString>& codexPath);

} // namespace CodexSignIn
