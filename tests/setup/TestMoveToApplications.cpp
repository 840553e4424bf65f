#include "setup/MoveToApplications.h"

#include <QTest>

using namespace MoveToApplications;

/// When the first start offers to move the app into Applications.
class TestMoveToApplications : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void offer_data();
    void offer();
};

void TestMoveToApplications::offer_data()
{
    QTest::addColumn<QString>("bundle");
    QTest::addColumn<QString>("resolved");
    QTest::addColumn<bool>("declined");
    QTest::addColumn<bool>("noMove");
    QTest::addColumn<bool>("testCopy");
    QTest::addColumn<bool>("offered");

    const QString downloads = QStringLiteral("/Users/ada/Downloads/Tidewatch.app");
    QTest::newRow("from Downloads, the first time") << downloads << downloads << false << false << false << true;
    QTest::newRow("a program that isn't a bundle (Linux)") << ""
                                                           << "" << false << false << false << false;
    QTest::newRow("a build folder that isn't an .app") << "/Users/ada/build/bin"
                                                       << "" << false << false << false << false;
    QTest::newRow("already in /Applications") << "/Applications/Tidewatch.app"
                                              << "/Applications/Tidewatch.app" << false << false << false << false;
    QTest::newRow("in the home's own Applications")
        << "/Users/ada/Applications/Tidewatch.app"
        << "/Users/ada/Applications/Tidewatch.app" << false << false << false << false;
    QTest::newRow("a link into /Applications counts by where it leads")
        << "/Users/ada/Desktop/Tidewatch.app"
        << "/Applications/Tidewatch.app" << false << false << false << false;
    QTest::newRow("declined before: never again") << downloads << downloads << true << false << false << false;
    QTest::newRow("translocated: asked again despite a refusal")
        << "/private/var/folders/x/AppTranslocation/ABC/d/Tidewatch.app"
        << "/private/var/folders/x/AppTranslocation/ABC/d/Tidewatch.app" << true << false << false << true;
    QTest::newRow("TIDEWATCH_NO_MOVE, even empty") << downloads << downloads << false << true << false << false;
    QTest::newRow("a test copy never offers") << downloads << downloads << false << false << true << false;
}

void TestMoveToApplications::offer()
{
    QFETCH(QString, bundle);
    QFETCH(QString, resolved);
    QFETCH(bool, declined);
    QFETCH(bool, noMove);
    QFETCH(bool, testCopy);
    QFETCH(bool, offered);
    QCOMPARE(shouldOffer({bundle, resolved, QStringLiteral("/Users/ada"), declined, noMove, testCopy}), offered);
}

QTEST_GUILESS_MAIN(TestMoveToApplications)
#include "TestMoveToApplications.moc"
