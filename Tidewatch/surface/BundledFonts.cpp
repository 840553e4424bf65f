#include "surface/BundledFonts.h"

#include "platform/Platform.h"

#include <QDir>
#include <QFontDatabase>

namespace BundledFonts {

QString folder()
{
    const QString resources = platform::resourceFolder();
    if (resources.isEmpty())
        return {};
    const QString fonts = resources + QStringLiteral("/fonts");
    return QFileInfo(fonts).isDir() ? fonts : QString();
}

QStringList load(const QString& folder)
{
    QStringList families;
    if (folder.isEmpty())
        return families;
    const QDir dir(folder);
    for (const QString& name :
        dir.entryList({QStringLiteral("*.ttf"), QStringLiteral("*.otf")}, QDir::Files, QDir::Name)) {
        const int id = QFontDatabase::addApplicationFont(dir.absoluteFilePath(name));
        if (id < 0)
            continue;
        for (const QString& family : QFontDatabase::applicationFontFamilies(id)) {
            if (!families.contains(family))
                families << family;
        }
    }
    return families;
}

} // namespace BundledFonts
