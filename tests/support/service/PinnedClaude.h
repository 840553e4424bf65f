#pragma once

#include <QString>

/// The Claude Code the suites run for real, pinned in daemon/test/tools.
namespace PinnedClaude {

inline const QString kFolder = QStringLiteral(TIDEWATCH_SOURCE_DIR "/daemon/test/tools/node_modules/.bin");
inline const QString kProgram = kFolder + QStringLiteral("/claude");
/// Why a suite that needs it can't run.
inline constexpr const char* kMissing = "Claude Code isn’t installed for the tests (npm ci in daemon/test/tools).";

} // namespace PinnedClaude
