#include "ScratchFolder.h"

#include "entry/Preferences.h"
#include "setup/OutsideTools.h"

#include <QTest>

/// The table of outside tools a test copy may replace, and only a test copy.
class TestOutsideTools : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void onlyATestCopyReplacesTools();
};

void TestOutsideTools::onlyATestCopyReplacesTools()
{
    ScratchFolder scratch;
    const QString home = scratch.file(QStringLiteral("home/"));
    const QHash<QString, QString> xdg{{QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral(".config")},
        {QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral(".local/share")},
        {QStringLiteral("XDG_STATE_HOME"), home + QStringLiteral(".local/state")}};
    QHash<QString, QString> testVariables = xdg;
    testVariables.insert(QStringLiteral("TIDEWATCH_SUPPORT"), scratch.file(QStringLiteral("support")));
    const Environment testCopy(testVariables, home);
    const Environment realCopy(xdg, home);
    for (const Environment* environment : {&testCopy, &realCopy}) {
        Preferences preferences(*environment);
        preferences.setText(QStringLiteral("outsideTools/systemctl"), QStringLiteral("/scratch/systemctl"));
        preferences.setText(QStringLiteral("outsideTools/serviceManager"), QStringLiteral("launchd"));
        preferences.setText(QStringLiteral("outsideTools/nodeFolders"), QStringLiteral("/a:/b"));
    }

    const OutsideTools system = OutsideTools::forThisSystem();
    QCOMPARE(OutsideTools::current(realCopy), system);
    const OutsideTools replaced = OutsideTools::current(testCopy);
    QCOMPARE(replaced.system.systemctl, QStringLiteral("/scratch/systemctl"));
    QCOMPARE(replaced.system.manager, platform::ServiceManagerKind::Launchd);
    QCOMPARE(replaced.system.lsof, system.system.lsof);
    QCOMPARE(replaced.nodeFolders.size(), 2);
    QCOMPARE(replaced.nodeFolders.at(1).folder, QStringLiteral("/b"));

    // A replacement in process wins over both, until it is cleared.
    OutsideTools mine = system;
    mine.system.tar = QStringLiteral("/scratch/tar");
    OutsideTools::replace(mine);
    QCOMPARE(OutsideTools::current(realCopy), mine);
    OutsideTools::replace(std::nullopt);
    QCOMPARE(OutsideTools::current(realCopy), system);
}

QTEST_GUILESS_MAIN(TestOutsideTools)
#include "TestOutsideTools.moc"
