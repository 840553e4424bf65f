#pragma once

#include <QHash>
#include <QList>
#include <QString>

/// The one place that knows which system it runs on. Everything here has one
/// implementation per system under platform/macos or platform/linux.
namespace platform {

/// Absolute path of the running executable, or empty when it can't be told.
QString executablePath();

/// Folders that belong to the real install. They never follow a test copy's
/// variables: they are the yardstick of isolation.
struct RealFolders {
    QString support; ///< where the service's support files live
    QString logs; ///< where the service logs
    QString serviceUnits; ///< where the service manager reads its job files
};
RealFolders realFolders(const QString& home, const QHash<QString, QString>& variables);

/// File name ending of a service job file (".plist" for launchd, ".service" for systemd).
QString serviceUnitSuffix();

/// The folder beside the executable that holds bundled resources such as
/// the service ("daemon"), or empty when there is none.
QString resourceFolder();

/// Path of the preferences file for a domain ("com.harbourlab.tidewatch").
/// Empty means the system's own store (user defaults on macOS).
QString preferencesFile(const QString& domain, const QString& home, const QHash<QString, QString>& variables);

/// What a person calls this machine: "Mac" on macOS, "computer" elsewhere.
QString machineNoun();

/// The program is an application bundle that a person drags to the Trash.
bool programIsBundle();

/// Keeping the machine awake with its lid closed needs a root-only tool (pmset
/// on macOS); logind does it for the user elsewhere.
bool lidSleepNeedsRoot();

/// Chooses offscreen drawing when no display is there to show on (a server, CI);
/// macOS always has its window server.
void drawOffscreenWithoutDisplay();

/// Makes the running program a background accessory (no Dock icon) where the system has the idea.
void becomeAccessory();

} // namespace platform

#include <functional>

class QObject;

namespace platform {

/// The single-instance rule. Returns true when another running copy was
/// found and brought forward: this process then ends with 0. Otherwise this
/// process becomes the one others hand over to, and onReopen runs (on the
/// main thread, for as long as owner lives) whenever a later launch does.
bool handOverToRunningInstance(QObject* owner, std::function<void()> onReopen);

} // namespace platform

namespace platform {

/// The shell that knows the user's PATH, run with -lc: zsh where it is there
/// (the Mac's own), else the user's login shell from the user database.
QString loginShell();

/// Where this system's package managers put node and friends, in the order
/// they are searched, with the words a person knows them by.
struct ToolFolder {
    QString folder;
    QString label;
};
QList<ToolFolder> systemToolFolders();

} // namespace platform

namespace platform {

/// The end of a script run with the administrator's password.
struct AdminRun {
    enum class Result { Done, Cancelled, Failed };
    Result result = Result::Failed;
    /// What went wrong, in the system's or the script's words; may be empty.
    QString message;
};

/// Runs a shell script as root after the system's own password dialog: the
/// AppleScript source on macOS (in the app or through osascript), pkexec on Linux.
AdminRun runAsAdministrator(const QString& script, const QString& appleScriptSource, bool inApp);

} // namespace platform

namespace platform {

/// Which Node.js archive fits this machine: the file name's system part
/// ("darwin-arm64", "linux-x64") and the key the release index lists it under.
struct NodeArchive {
    QString system;
    QString indexKey;
};
NodeArchive nodeArchive();

} // namespace platform
