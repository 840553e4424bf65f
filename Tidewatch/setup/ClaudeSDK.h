#pragma once

#include "base/Shell.h"
#include "entry/Environment.h"

#include <QString>
#include <QStringList>

#include <optional>

/// Claude Code's agent SDK in the service's folder: the one pinned npm
/// package, installed by the npm of the Node.js the service runs on, strictly
/// as the service's lock pins it, with no package script run. A service
/// without it still runs; a failure leaves a sentence, never a stop.
namespace ClaudeSDK {

/// The SDK's npm package, which the installer fetches apart from the service's other packages.
inline const QString kPackage = QStringLiteral("@anthropic-ai/claude-agent-sdk");

struct State {
    /// The pinned version; none when nothing is pinned.
    std::optional<QString> wanted;
    /// The version in node_modules; none when there is no whole package.
    std::optional<QString> installed;

    bool isCurrent() const { return installed && (!wanted || wanted == installed); }
    bool operator==(const State&) const = default;
};

/// ready: the version now in place; otherwise the sentence that says why not.
struct Outcome {
    std::optional<QString> ready;
    QString failure;

    bool operator==(const Outcome&) const = default;
};

inline constexpr double timeLimit = 180;

std::optional<QString> wanted(const QString& daemonFolder);
std::optional<QString> installedVersion(const QString& daemonFolder);
State state(const QString& daemonFolder);

/// Fetches only when the SDK isn't current; remembers the failure for lastProblem().
Outcome ensure(const Environment& environment, const QString& daemonFolder, const QString& nodePath);
/// Always fetches.
Outcome fetch(const Environment& environment, const QString& daemonFolder, const QString& nodePath,
    double limitSeconds = timeLimit);
/// Takes over a working SDK from the copy being replaced. Best effort.
void carryOver(const QString& oldFolder, const QString& newFolder);

/// The last failed fetch's sentence, until a success clears it. Safe from any thread.
std::optional<QString> lastProblem();

/// npm to run, as a program and the arguments that come before npm's own;
/// none when the Node.js has no npm beside it.
struct Npm {
    QString program;
    QStringList prefix;
};
std::optional<Npm> findNpm(const QString& nodePath);
QStringList arguments(const QString& cacheFolder);
Shell::Environment environment(const QString& nodePath);
/// The sentence for a finished npm run that didn't leave the pinned SDK.
QString sentence(const ShellResult& result, const std::optional<QString>& pinned, double limitSeconds,
    const QString& daemonFolderForPeople);

} // namespace ClaudeSDK
