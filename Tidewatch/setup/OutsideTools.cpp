#include "setup/OutsideTools.h"

#include "entry/Preferences.h"

#include <QMutex>

namespace {

QMutex replacementLock;
std::optional<OutsideTools> replacement;

void takeText(const Preferences& preferences, const char* name, QString& slot)
{
    const QString value = preferences.text(QStringLiteral("outsideTools/") + QLatin1StringView(name));
    if (!value.isEmpty())
        slot = value;
}

} // namespace

bool platform::operator==(const ToolFolder& a, const ToolFolder& b)
{
    return a.folder == b.folder && a.label == b.label;
}

OutsideTools OutsideTools::forThisSystem()
{
    return {platform::systemTools(), platform::systemToolFolders()};
}

OutsideTools OutsideTools::current(const Environment& environment)
{
    {
        QMutexLocker locker(&replacementLock);
        if (replacement)
            return *replacement;
    }
    OutsideTools tools = forThisSystem();
    if (!environment.isTestCopy())
        return tools;
    const Preferences preferences(environment);
    takeText(preferences, "launchctl", tools.system.launchctl);
    takeText(preferences, "systemctl", tools.system.systemctl);
    takeText(preferences, "lsof", tools.system.lsof);
    takeText(preferences, "xattr", tools.system.xattr);
    takeText(preferences, "tar", tools.system.tar);
    takeText(preferences, "terminal", tools.system.terminal);
    const QString manager = preferences.text(QStringLiteral("outsideTools/serviceManager"));
    if (manager == QLatin1StringView("launchd"))
        tools.system.manager = platform::ServiceManagerKind::Launchd;
    else if (manager == QLatin1StringView("systemd"))
        tools.system.manager = platform::ServiceManagerKind::Systemd;
    const QString folders = preferences.text(QStringLiteral("outsideTools/nodeFolders"));
    if (!folders.isEmpty()) {
        tools.nodeFolders.clear();
        for (const QString& folder : folders.split(QLatin1Char(':'), Qt::SkipEmptyParts))
            tools.nodeFolders.append({folder, folder});
    }
    return tools;
}

void OutsideTools::replace(std::optional<OutsideTools> tools)
{
    QMutexLocker locker(&replacementLock);
    replacement = std::move(tools);
}
