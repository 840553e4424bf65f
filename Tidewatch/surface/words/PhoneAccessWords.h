#pragma once

#include "link/LocalStatus.h"
#include "surface/words/Palette.h"

#include <QDateTime>
#include <QString>
#include <QStringList>

#include <optional>

/// The Settings page's Phone access section: how a phone reaches this
/// computer, what to do when it can't, and which Tailscale serves it.
namespace PhoneAccessWords {

/// The Phone access row, as the page shows it.
struct Row {
    /// The phone's address, when phone access is on.
    std::optional<QString> url;
    /// The row's sentences, first the one that says how it stands.
    QStringList lines;
    /// Amber when phones can't come this way yet.
    Ink ink = Ink::Secondary;
    bool operator==(const Row&) const = default;
};

/// What the row reads from.
struct Inputs {
    bool serviceUp = false;
    const std::optional<LocalStatus>& status;
};

Row row(const Inputs& inputs);

/// "Phones on this Wi‑Fi still pair and connect." where the route isn't up and the local network is.
std::optional<QString> wifiLine(const LocalStatus& status);

/// The warning that this computer's Tailscale key runs out, with its fix.
struct KeyWarning {
    QString text;
    /// The fix's button, and the line and help beside it.
    QString action;
    QString line;
    QString help;
    bool operator==(const KeyWarning&) const = default;
};

/// Only for the Tailscale app's route, within 14 days of the expiry or past it.
std::optional<KeyWarning> keyWarning(const LocalStatus& status, const QDateTime& now);

/// A switch between the Tailscale app and the built-in node.
struct Choice {
    QString title;
    QString help;
    /// What `builtInTailscale` becomes.
    bool builtIn = false;
    bool operator==(const Choice&) const = default;
};

/// Offered only when both the app and the built-in node are possible.
std::optional<Choice> routeChoice(const LocalStatus& status);

/// The built-in node's sign-out, while the node is the route.
std::optional<Choice> signOut(const LocalStatus& status);

/// The section's heading.
QString heading();
/// What a test copy does about phone access.
QString testCopyLine();
/// The line beside "readyBuiltIn" with `pinned`.
QString pinnedLine();

} // namespace PhoneAccessWords
