#pragma once

#include "entry/Environment.h"
#include "platform/Platform.h"
#include "setup/NodeVersion.h"

#include <QList>
#include <QString>

#include <optional>

/// One Node.js found on this machine, and how it was found.
struct NodeCandidate {
    QString path;
    /// In words: "downloaded by Tidewatch", "Homebrew", "nvm", "recorded"…
    QString source;
    /// What `--version` printed; none when it couldn't be run.
    std::optional<QString> version;

    std::optional<NodeVersion> parsedVersion() const;
    bool meetsFloor() const;

    bool operator==(const NodeCandidate&) const = default;
};

/// The Node.js the service is to run on.
struct ServiceNodeChoice {
    /// One that stays where it is (or the one a working service runs on).
    std::optional<NodeCandidate> stable;
    /// The last resort, good enough by version alone; none when the service's own was kept.
    std::optional<NodeCandidate> versioned;
    /// Everything that was looked at, in order.
    QList<NodeCandidate> all;

    bool operator==(const ServiceNodeChoice&) const = default;
};

struct ClaudeDetection {
    std::optional<QString> path;
    std::optional<QString> version;
    /// None: the account file is there but can't be made sense of.
    std::optional<bool> signedIn;
    std::optional<QString> account;
    /// How it was found, in words.
    std::optional<QString> foundBy;

    bool operator==(const ClaudeDetection&) const = default;
};

struct CodexFound {
    QString path;
    std::optional<QString> version;

    bool operator==(const CodexFound&) const = default;
};

/// The app's own look at what this machine has: Node.js, Claude Code, Codex,
/// Tailscale. Every call blocks (it runs the finds to prove them), so callers
/// use it off the main thread. A failure anywhere is absence, never an error.
class Detection
{
public:
    /// The places the look starts from; tests replace them with scratch folders.
    struct Places {
        QString loginShell;
        QList<platform::ToolFolder> systemFolders;
        QStringList tailscaleCLIs;

        static Places forThisSystem();
    };

    explicit Detection(Environment environment = Environment::current(), Places places = Places::forThisSystem());

    /// Folders of user-installed tools, searched in this order.
    QStringList searchDirectories() const;
    std::optional<QString> findTool(const QString& name) const;

    QList<NodeCandidate> nodeCandidates() const;
    /// The first candidate that meets the floor, beside the whole list.
    std::pair<std::optional<NodeCandidate>, QList<NodeCandidate>> bestNode() const;
    /// A Node.js that stays where it is: the app's own, or a system package's.
    bool isStableNode(const QString& path) const;
    /// installedServiceNode: the Node.js the installed service's job file starts, if any.
    ServiceNodeChoice chooseServiceNode(const std::optional<QString>& installedServiceNode) const;
    std::optional<NodeCandidate> probeNode(const QString& path, const QString& source) const;
    /// Writes the node-path note; the failure's sentence, or none.
    std::optional<QString> recordNodePath(const QString& path) const;

    ClaudeDetection detectClaude() const;
    /// From Claude Code's own files: signed in (none when unknown), and the account's address.
    std::pair<std::optional<bool>, std::optional<QString>> readClaudeSignIn() const;
    std::optional<CodexFound> findCodex() const;
    std::optional<QString> tailscaleCLI() const;

    /// The last line of a login shell's answer that is a path; greetings around it are passed over.
    static std::optional<QString> pathFromShellOutput(const QString& output);

private:
    std::optional<QString> viaLoginShell(const QString& name) const;
    QList<std::pair<NodeVersion, QString>> nvmVersions() const;

    Environment m_environment;
    Places m_places;
};
