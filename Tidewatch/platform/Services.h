#pragma once

#include <QString>

#include <optional>

/// What differs between the systems in keeping the background service: the
/// service manager and its tool, the other outside programs the installers
/// run, the one-step folder swap, the login item and the app's own place.
namespace platform {

/// Which service manager runs the service: launchd through launchctl, or
/// systemd's user instance through systemctl --user.
enum class ServiceManagerKind { Launchd, Systemd };

/// How a terminal window is opened on a script: macOS opens a .command file
/// with open, which hands it to Terminal; elsewhere a terminal emulator runs
/// the script named after -e.
enum class TerminalKind { CommandFile, Emulator };

/// The absolute paths of the outside programs the installers run, as this
/// system has them. An empty path is a tool the system doesn't need.
struct SystemTools {
    ServiceManagerKind manager = ServiceManagerKind::Systemd;
    QString launchctl;
    QString systemctl;
    QString lsof;
    /// Clears the quarantine mark of a downloaded copy; macOS only.
    QString xattr;
    QString tar;
    TerminalKind terminalKind = TerminalKind::Emulator;
    /// open on macOS; $TERMINAL, else x-terminal-emulator, elsewhere.
    QString terminal;

    bool operator==(const SystemTools&) const = default;
};
SystemTools systemTools();

/// Exchanges two existing folders in one step of the file system, so that a
/// reader of either path sees the old contents or the new, never a mix.
/// The failure's words, or none.
std::optional<QString> swapFolders(const QString& first, const QString& second);

/// The login item that opens the app at login: SMAppService.mainApp on macOS,
/// an XDG autostart entry on Linux (its folder follows XDG_CONFIG_HOME).
bool loginItemEnabled();
/// Registers the running program; the failure's words, or none.
std::optional<QString> registerLoginItem();
std::optional<QString> unregisterLoginItem();
/// The running program is one a login item can open: a bundle ending in
/// ".app" on macOS, any program on Linux.
bool programCanOpenAtLogin();

/// The running application bundle's path when the program runs from one
/// ("…/Tidewatch.app"); empty where there are no bundles.
QString applicationBundle();

} // namespace platform

namespace platform {

/// The first-start offer to move the app into Applications, where the
/// system has the idea (macOS). The alert comes with the app brought to the
/// front; true when the person chose to move.
bool confirmMove(const QString& title, const QString& text, const QString& moveButton, const QString& keepButton);
/// Puts the running bundle at destination (a copy running from there is
/// ended first, the old one makes way), clears the quarantine mark of the
/// copy and starts it. The failure's words, or none: then this process quits.
std::optional<QString> moveBundle(const QString& bundle, const QString& destination);
/// Tells why the move failed, in an alert.
void showMoveFailure(const QString& text);

} // namespace platform
