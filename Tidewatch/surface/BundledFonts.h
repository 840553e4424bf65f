#pragma once

#include <QString>
#include <QStringList>

/// The typefaces the panel is set in, where the program carries them itself
/// (the macOS bundle's resources); on Linux the system's font packages
/// provide them and the folder is absent.
namespace BundledFonts {

/// The folder the program's own fonts travel in; empty when it has none.
QString folder();

/// Adds every TrueType and OpenType file of folder to this process's fonts,
/// passing over what isn't a font. Gives the families added. Needs the
/// application object.
QStringList load(const QString& folder);

} // namespace BundledFonts
