#pragma once

#include "link/LocalStatus.h"

#include <QString>

#include <optional>

/// The Settings page's other switches: browsing outside the projects folder,
/// the private name, and the way out.
namespace SettingsWords {

/// A switch, as `FilesSettings` and the private name show it.
struct Switch {
    QString title;
    bool on = false;
    /// The small word beside the title while it is on.
    std::optional<QString> tag;
    QString help;
    /// The longer why, behind its disclosure.
    std::optional<QString> why;
    /// What the status says about it now.
    std::optional<QString> note;
    bool operator==(const Switch&) const = default;
};

/// `FilesSettings`: reads `files.browseOutsideProjects`.
Switch files(const LocalStatus& status);
/// The note after the files switch was turned on or off.
QString filesChanged(bool on);
/// The disclosure that opens and closes the why-line.
QString whyTitle();

/// The private name: the user's choice, and the name in use or why there is none.
Switch privateName(const LocalStatus& status);

/// The uninstall action's button.
QString uninstall();

} // namespace SettingsWords
