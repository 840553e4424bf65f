#include "Fixture.h"
#include "ScratchFolder.h"

#include "entry/Preferences.h"
#include "setup/OutsideTools.h"
#include "setup/ServiceSteps.h"
#include "setup/Uninstaller.h"

#include <QTest>

using namespace ServiceSteps;

namespace {

constexpr auto status = &Fixture::record<LocalStatus>;

} // namespace

/// What the headless steps conclude from the service's status, the words
/// around the uninstall, and the table of outside tools a test copy may replace.
class TestServiceSteps : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void integrationLine_data();
    void integrationLine();
    void phoneAccess_data();
    void phoneAccess();
    void shortenedPaths_data();
    void shortenedPaths();
    void uninstallEnding_data();
    void uninstallEnding();
    void onlyATestCopyReplacesTools();
};

void TestServiceSteps::integrationLine_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("line");
    QTest::addColumn<int>("code");

    QTest::newRow("both in place") << QByteArray(
        R"({"hooks":{"installed":true},"statusLine":{"installed":true,"supported":true}})")
                                   << "OK: hooks installed, status line installed" << 0;
    QTest::newRow("the status line doesn't decide")
        << QByteArray(R"({"hooks":{"installed":true},"statusLine":{"installed":false}})")
        << "OK: hooks installed, status line NOT installed" << 0;
    QTest::newRow("hooks missing fail the step")
        << QByteArray(R"({"hooks":{"installed":false},"statusLine":{"installed":true}})")
        << "FAILED: hooks NOT installed, status line installed" << 1;
    QTest::newRow("a service that doesn't say counts as not installed")
        << QByteArray(R"({"daemonVersion":"0.1.0"})") << "FAILED: hooks NOT installed, status line NOT installed" << 1;
}

void TestServiceSteps::integrationLine()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, line);
    QFETCH(int, code);
    QCOMPARE(integrationReport(status(json)), (Report{{line}, code}));
}

void TestServiceSteps::phoneAccess_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<int>("code");

    const QString note = QStringLiteral("Note: this computer’s Tailscale key expires %1; disable key expiry at "
                                        "https://login.tailscale.com/admin/machines");
    QTest::newRow("on, with a key far from expiry")
        << QByteArray(R"({"tailscale":{"serveOn":true,"url":"https://mac.tail1.ts.net","keyExpiry":1790000000}})")
        << QStringList{"OK: https://mac.tail1.ts.net"} << 0;
    QTest::newRow("on without an address")
        << QByteArray(R"({"tailscale":{"serveOn":true}})") << QStringList{"OK: ?"} << 0;
    QTest::newRow("a key that runs out within 14 days")
        << QByteArray(R"({"tailscale":{"serveOn":true,"url":"https://m","keyExpiry":1760600000}})")
        << QStringList{"OK: https://m", note.arg("2025-10-16")} << 0;
    QTest::newRow("a key already past") << QByteArray(
        R"({"tailscale":{"serveOn":true,"url":"https://m","keyExpiry":"2025-09-01T00:00:00Z"}})")
                                        << QStringList{"OK: https://m", note.arg("2025-09-01")} << 0;
    QTest::newRow("off, certificates off")
        << QByteArray(R"({"tailscale":{"serveOn":false,"httpsEnabled":false}})")
        << QStringList{"FAILED: Tailscale didn’t turn phone access on. HTTPS certificates are still off for your "
                       "tailnet."}
        << 1;
    QTest::newRow("off for another reason")
        << QByteArray(R"({"tailscale":{"serveOn":false,"httpsEnabled":true}})")
        << QStringList{"FAILED: Tailscale didn’t turn phone access on. Check that Tailscale is running and signed in, "
                       "then try again."}
        << 1;
    QTest::newRow("no Tailscale record at all")
        << QByteArray("{}")
        << QStringList{"FAILED: Tailscale didn’t turn phone access on. Check that Tailscale is running and signed in, "
                       "then try again."}
        << 1;
}

void TestServiceSteps::phoneAccess()
{
    QFETCH(QByteArray, json);
    QFETCH(QStringList, lines);
    QFETCH(int, code);
    QCOMPARE(tailscaleReport(status(json), Fixture::now()), (Report{lines, code}));
}

void TestServiceSteps::shortenedPaths_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("shown");

    QTest::newRow("inside the home") << "/home/ada/tw-test/support"
                                     << "~/tw-test/support";
    QTest::newRow("a neighbour whose name only begins the same") << "/home/adam/support"
                                                                 << "/home/adam/support";
    QTest::newRow("outside") << "/tmp/support"
                             << "/tmp/support";
}

void TestServiceSteps::shortenedPaths()
{
    QFETCH(QString, path);
    QFETCH(QString, shown);
    QCOMPARE(shortened(path, QStringLiteral("/home/ada")), shown);
}

void TestServiceSteps::uninstallEnding_data()
{
    QTest::addColumn<QStringList>("notes");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("text");

#ifdef Q_OS_MACOS
    const QString closing = QStringLiteral("You can move Tidewatch.app to the Trash now.");
#else
    const QString closing = QStringLiteral("You can remove the Tidewatch program now.");
#endif
    QTest::newRow("all went well") << QStringList{} << "Tidewatch is uninstalled." << closing;
    QTest::newRow("with notes, each on its line")
        << QStringList{"First note.", "Second note."} << "Tidewatch is mostly uninstalled."
        << QStringLiteral("First note.\nSecond note.\n\n") + closing;
}

void TestServiceSteps::uninstallEnding()
{
    QFETCH(QStringList, notes);
    QFETCH(QString, title);
    QFETCH(QString, text);
    QCOMPARE(Uninstaller::endTitle(notes), title);
    QCOMPARE(Uninstaller::endText(notes), text);
}

void TestServiceSteps::onlyATestCopyReplacesTools()
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

QTEST_GUILESS_MAIN(TestServiceSteps)
#include "TestServiceSteps.moc"
