#include "RealPlaces.h"

#include "base/UserAccount.h"
#include "entry/Environment.h"

#include <QFileInfo>
#include <QTest>

RealPlaces::RealPlaces()
    : m_before(look())
{
}

QList<RealPlaces::Place> RealPlaces::look()
{
    const QString home = account::homeDirectory();
    const Environment real({}, home);
    QList<Place> places;
    // The real install's own service may write in its folders meanwhile: only
    // whether they exist counts there, and for Claude Code's settings too. The
    // unit and the autostart entry only an install writes, so their time counts.
    for (const QString& path : {real.realSupportFolder(), real.realLogFolder(), real.serviceUnitFolder(),
             home + QStringLiteral("/.claude/settings.json")})
        places << Place{path, QFileInfo::exists(path), {}};
    for (const QString& path : {real.serviceUnitFile(), home + QStringLiteral("/.config/autostart/tidewatch.desktop")})
        places << Place{path, QFileInfo::exists(path), QFileInfo(path).lastModified()};
    return places;
}

QStringList RealPlaces::changed() const
{
    QStringList lines;
    const QList<Place> now = look();
    for (qsizetype i = 0; i < now.size(); ++i) {
        if (now.at(i).exists != m_before.at(i).exists || now.at(i).modified != m_before.at(i).modified)
            lines << now.at(i).path;
    }
    return lines;
}

int runEndToEnd(QObject& suite, int argc, char** argv)
{
    const RealPlaces places;
    const int failed = QTest::qExec(&suite, argc, argv);
    const QStringList changed = places.changed();
    for (const QString& path : changed)
        qCritical("FAIL: an end-to-end run changed the real install's %s", qPrintable(path));
    return failed + int(changed.size());
}
