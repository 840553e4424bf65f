#pragma once

#include "link/Provider.h"
#include "link/Session.h"

#include <QDateTime>
#include <QString>

#include <optional>

/// The session's two-character stamp and how long ago it was last active.
struct SessionStamp {
    /// "c7", or "··" for an id with no letter or digit.
    QString hex;
    /// "now", "12m", "3h", "2d"; empty without a last activity.
    QString age;
    /// "Session c7, active 2h 11m ago".
    QString help;

    bool operator==(const SessionStamp&) const = default;
};

namespace SessionWords {

/// `title`, else `projectName`, else "Untitled session".
QString title(const Session& session);
/// "Home" for a session in the home folder, else its project's name.
std::optional<QString> place(const Session& session, const QString& home);
QString stampHex(const QString& id);
SessionStamp stamp(const Session& session, const QDateTime& now);
/// A click on the row opens a terminal: it has one, it is Codex's, or the service started it.
bool opensTerminal(const Session& session);
/// The hover button: "Show" when a terminal is open on this computer, else "Open".
QString openTitle(const Session& session);
/// The row's tool tip.
QString help(const Session& session);
/// What a screen reader says of the row.
QString spokenLabel(const Session& session, const Provider* provider, const QString& home);

} // namespace SessionWords
