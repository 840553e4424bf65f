#include "entry/Environment.h"
#include "entry/Preferences.h"

#include "Golden.h"
#include "ScratchFolder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <sys/stat.h>

using Variables = Environment::Variables;

/// The home is always a scratch folder, so the "real" folders these tests
/// compare against are scratch folders too.
class TestEnvironment : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void ports_data();
    void ports();
    void copies_data();
    void copies();
    void realFolders_data();
    void realFolders();
    void testCopyFolders();
    void realCopyFolders();
    void serviceEnvironment();
    void supportFolderIsPrivate();
    void supportFolderFailureIsASentence();
    void preferencesStayInTheirDomain();
    void debugCaptureFolder();

private:
    Environment make(Variables variables) const { return Environment(std::move(variables), m_home); }
    QString real() const { return m_home + QStringLiteral("/.local/share/Tidewatch"); }
    QString realLogs() const { return m_home + QStringLiteral("/.local/state/Tidewatch/logs"); }

    std::unique_ptr<ScratchFolder> m_scratch;
    QString m_home;
};

void TestEnvironment::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_home = m_scratch->path() + QStringLiteral("/Home");
    QDir().mkpath(real());
    QDir().mkpath(realLogs());
    QDir().mkpath(m_scratch->path() + QStringLiteral("/test/support"));
}

void TestEnvironment::ports_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("port");

    QTest::newRow("plain digits") << "47371" << 47371;
    QTest::newRow("a plus sign") << "+47371" << 47371;
    QTest::newRow("a minus sign is a port too: nothing checks the range") << "-5" << -5;
    QTest::newRow("the largest 32-bit value") << "2147483647" << 2147483647;
    QTest::newRow("overflow falls back") << "2147483648" << Environment::defaultApiPort;
    QTest::newRow("a blank falls back") << " 47371" << Environment::defaultApiPort;
    QTest::newRow("two signs fall back") << "+-1" << Environment::defaultApiPort;
    QTest::newRow("empty is the default") << "" << Environment::defaultApiPort;
}

void TestEnvironment::ports()
{
    QFETCH(QString, text);
    QTEST(make({{QStringLiteral("TIDEWATCH_API_PORT"), text}}).apiPort(), "port");
}

void TestEnvironment::copies_data()
{
    Golden::addRows({QStringLiteral("test-copy.txt")});
}

void TestEnvironment::copies()
{
    QFETCH(QString, input);

    Variables variables;
    for (QString assignment : input.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        assignment.replace(QStringLiteral("$SCRATCH"), m_scratch->path()).replace(QStringLiteral("$HOME"), m_home);
        variables.insert(QStringLiteral("TIDEWATCH_") + assignment.section(QLatin1Char('='), 0, 0),
            assignment.section(QLatin1Char('='), 1));
    }
    const Environment environment = make(variables);
    QTEST(QStringLiteral("%1, %2 | %3")
              .arg(environment.isTestCopy() ? QStringLiteral("test copy") : QStringLiteral("real"),
                  environment.isIsolated() ? QStringLiteral("isolated") : QStringLiteral("not isolated"),
                  environment.refusalSentence().value_or(QStringLiteral("—"))),
        "expected");
}

void TestEnvironment::realFolders_data()
{
    QTest::addColumn<QString>("location");
    QTest::addColumn<bool>("real");

    QTest::newRow("the real folder itself") << "$REAL" << true;
    QTest::newRow("the real folder with a trailing slash and a dot") << "$REAL/./" << true;
    QTest::newRow("the real folder in other case") << "$HOME/.Local/Share/TIDEWATCH" << true;
    QTest::newRow("the home contains it") << "$HOME" << true;
    QTest::newRow("a folder inside it") << "$REAL/app/daemon" << true;
    QTest::newRow("a folder inside it that doesn't exist yet") << "$REAL/not/yet" << true;
    QTest::newRow("a link to it") << "$SCRATCH/link-to-real" << true;
    QTest::newRow("a folder reached through a link to it") << "$SCRATCH/link-to-real/sub" << true;
    QTest::newRow("a way round through ..") << "$SCRATCH/test/../Home/.local/share/Tidewatch" << true;
    QTest::newRow("inside the real log folder") << "$HOME/.local/state/Tidewatch/logs/old" << true;
    QTest::newRow("a sibling of the real folder") << "$HOME/.local/share/Tidewatch-test" << false;
    QTest::newRow("a scratch folder") << "$SCRATCH/test/support" << false;
    QTest::newRow("a link elsewhere") << "$SCRATCH/link-to-test" << false;
    QTest::newRow("a relative path resolves from the working folder") << "relative/folder" << false;
}

void TestEnvironment::realFolders()
{
    QFETCH(QString, location);
    QFETCH(bool, real);

    QFile::link(this->real(), m_scratch->path() + QStringLiteral("/link-to-real"));
    QFile::link(m_scratch->path() + QStringLiteral("/test"), m_scratch->path() + QStringLiteral("/link-to-test"));
    location.replace(QStringLiteral("$REAL"), this->real());
    location.replace(QStringLiteral("$SCRATCH"), m_scratch->path());
    location.replace(QStringLiteral("$HOME"), m_home);
    QCOMPARE(make({}).isRealFolder(location), real);
}

void TestEnvironment::testCopyFolders()
{
    const QString support = m_scratch->path() + QStringLiteral("/test/support");
    const Environment environment = make({{QStringLiteral("TIDEWATCH_SUPPORT"), support + QStringLiteral("/")},
        {QStringLiteral("TIDEWATCH_API_PORT"), QStringLiteral("47371")},
        {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QStringLiteral("47372")}});
    QCOMPARE(environment.supportFolder(), support);
    QCOMPARE(environment.logFolder(), support + QStringLiteral("/logs"));
    QCOMPARE(environment.daemonFolder(), support + QStringLiteral("/app/daemon"));
    QCOMPARE(environment.serviceLabel(), QStringLiteral("com.harbourlab.tidewatch.daemon.test-47371"));
    QVERIFY(environment.serviceUnitFile().startsWith(support + QLatin1Char('/')));
    QVERIFY(environment.serviceUnitFile().contains(QStringLiteral("com.harbourlab.tidewatch.daemon.test-47371.")));
    QCOMPARE(environment.preferencesDomain(), QStringLiteral("com.harbourlab.tidewatch.test"));
    // The real folders never follow a test copy.
    QCOMPARE(environment.realSupportFolder(), real());
    QCOMPARE(environment.realLogFolder(), realLogs());
}

void TestEnvironment::realCopyFolders()
{
    const Environment environment = make({{QStringLiteral("TIDEWATCH_LOGS"), QString()}});
    QCOMPARE(environment.supportFolder(), real());
    QCOMPARE(environment.logFolder(), realLogs());
    QCOMPARE(environment.serviceLabel(), QStringLiteral("com.harbourlab.tidewatch.daemon"));
    QCOMPARE(environment.apiPort(), 47321);
    QCOMPARE(environment.localPort(), 47322);
    QCOMPARE(environment.agentSettingsFile(), m_home + QStringLiteral("/.claude.json"));
    QCOMPARE(environment.preferencesDomain(), QStringLiteral("com.harbourlab.tidewatch"));
    QVERIFY(!environment.refusalSentence());

    // XDG folders move the real install, and only with absolute paths.
    const Environment xdg = make({{QStringLiteral("XDG_DATA_HOME"), QStringLiteral("/srv/data")},
        {QStringLiteral("XDG_STATE_HOME"), QStringLiteral("state")}});
    QCOMPARE(xdg.realSupportFolder(), QStringLiteral("/srv/data/Tidewatch"));
    QCOMPARE(xdg.realLogFolder(), realLogs());
}

void TestEnvironment::serviceEnvironment()
{
    QVERIFY(make({}).serviceEnvironment().isEmpty());
    const QString support = m_scratch->path() + QStringLiteral("/test/support");
    const Environment environment = make({{QStringLiteral("TIDEWATCH_SUPPORT"), support},
        {QStringLiteral("TIDEWATCH_API_PORT"), QStringLiteral("+47371")},
        {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QStringLiteral("47372")},
        {QStringLiteral("TIDEWATCH_NO_MOVE"), QString()}});
    const Variables expected{{QStringLiteral("TIDEWATCH_SUPPORT"), support},
        {QStringLiteral("TIDEWATCH_LOGS"), support + QStringLiteral("/logs")},
        {QStringLiteral("TIDEWATCH_API_PORT"), QStringLiteral("47371")},
        {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QStringLiteral("47372")}};
    QCOMPARE(environment.serviceEnvironment(), expected);
}

void TestEnvironment::supportFolderIsPrivate()
{
    const QString support = m_scratch->path() + QStringLiteral("/deep/er/support");
    const Environment environment = make({{QStringLiteral("TIDEWATCH_SUPPORT"), support}});
    QVERIFY(!environment.ensureSupportFolder());
    QCOMPARE(fileMode(support), 0700);
    // An existing folder that was left open is closed again.
    ::chmod(QFile::encodeName(support).constData(), 0755);
    QVERIFY(!environment.ensureSupportFolder());
    QCOMPARE(fileMode(support), 0700);
}

void TestEnvironment::supportFolderFailureIsASentence()
{
    const QString blocker = m_scratch->write(QStringLiteral("file"), "not a folder");
    const Environment environment = make({{QStringLiteral("TIDEWATCH_SUPPORT"), blocker + QStringLiteral("/support")}});
    const std::optional<QString> failure = environment.ensureSupportFolder();
    QVERIFY(failure);
    QVERIFY2(failure->contains(blocker), qPrintable(*failure));
}

void TestEnvironment::preferencesStayInTheirDomain()
{
    const QString config = m_scratch->path() + QStringLiteral("/config");
    const Variables base{{QStringLiteral("XDG_CONFIG_HOME"), config}};
    Variables test = base;
    test.insert(QStringLiteral("TIDEWATCH_LOGS"), m_scratch->path() + QStringLiteral("/logs"));

    {
        Preferences testPreferences(make(test));
        QVERIFY(!testPreferences.flag(Preferences::setupCompleted));
        testPreferences.setFlag(Preferences::setupCompleted, true);
        QVERIFY(testPreferences.location().startsWith(config));
        QVERIFY(testPreferences.location().contains(QStringLiteral("com.harbourlab.tidewatch.test")));
    }
    QVERIFY(Preferences(make(test)).flag(Preferences::setupCompleted));
    QVERIFY(!Preferences(make(base)).flag(Preferences::setupCompleted));
}

void TestEnvironment::debugCaptureFolder()
{
    const QString name = QStringLiteral("TIDEWATCH_DEBUG_CAPTURE");
    QCOMPARE(make({}).debugCaptureFolder(), std::nullopt);
    QCOMPARE(make({{name, QStringLiteral("/tmp/tour")}}).debugCaptureFolder(), QStringLiteral("/tmp/tour"));
    // An empty value counts: the tour runs, in the working folder.
    QCOMPARE(make({{name, QString()}}).debugCaptureFolder(), QString());
}

QTEST_GUILESS_MAIN(TestEnvironment)
#include "TestEnvironment.moc"
