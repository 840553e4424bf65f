#include "FakeManager.h"
#include "RealPlaces.h"
#include "ScratchFolder.h"
#include "ServiceBundle.h"
#include "ServiceProcess.h"

#include "entry/Preferences.h"
#include "setup/ServiceInstaller.h"
#include "setup/Uninstaller.h"

#include <QDir>
#include <QFile>
#include <QTest>

using Kind = platform::ServiceManagerKind;

/// The uninstall in its order, on a copy whose every folder lies in a
/// scratch folder and whose service is down: what couldn't be done becomes a
/// note, and nothing stops the rest.
class TestUninstaller : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void aDownServiceLeavesOneNoteAndTheRestGoes_data();
    void aDownServiceLeavesOneNoteAndTheRestGoes();
    void aCopyThatMayNotManageTouchesNothing();

private:
    /// A copy that isn't a test copy by its variables, its real folders all in the scratch folder.
    Environment environment(const QHash<QString, QString>& extra = {}) const;
    ServiceInstaller installed(const Environment& environment) const;
    Uninstaller::Hands hands();

    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<FakeManager> m_manager;
    QStringList m_said;
    int m_loginItemRemovals = 0;
    int m_backpackRemovals = 0;
    std::optional<QString> m_loginItemFailure;
};

void TestUninstaller::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_manager = std::make_unique<FakeManager>(*m_scratch);
    m_said.clear();
    m_loginItemRemovals = 0;
    m_backpackRemovals = 0;
    m_loginItemFailure.reset();
}

void TestUninstaller::cleanup()
{
    m_manager.reset();
    m_scratch.reset();
}

Environment TestUninstaller::environment(const QHash<QString, QString>& extra) const
{
    const QString home = m_scratch->file(QStringLiteral("home/"));
    QHash<QString, QString> variables{{QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral(".local/share")},
        {QStringLiteral("XDG_STATE_HOME"), home + QStringLiteral(".local/state")},
        {QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral(".config")}};
    variables.insert(extra);
    return Environment(variables, QDir::cleanPath(home));
}

// Copied and written as an install leaves them, but never started: this
// copy's ports are the real ones.
ServiceInstaller TestUninstaller::installed(const Environment& environment) const
{
    ServiceInstaller::Parts parts;
    parts.environment = environment;
    parts.tools = m_manager->tools(Kind::Systemd);
    parts.bundledDaemon = makeServiceBundle(*m_scratch, QStringLiteral("bundle/daemon"));
    // Down: and no probe ever goes to the real ports.
    parts.health = [](double) { return std::optional<Health>(); };
    ServiceInstaller installer(parts);
    if (!environment.refusalSentence()) {
        const bool copied = installer.copyDaemon().ok() && installer.writeJobFile(ServiceProcess::nodeProgram()).ok();
        if (!copied)
            QTest::qFail("the service couldn't be put in place", __FILE__, __LINE__);
        QDir().mkpath(environment.nodeFolder() + QStringLiteral("/v22.23.3/bin"));
        QDir().mkpath(environment.logFolder());
        QFile log(environment.daemonLog());
        log.open(QIODevice::WriteOnly);
    }
    return installer;
}

Uninstaller::Hands TestUninstaller::hands()
{
    Uninstaller::Hands hands;
    hands.removeBackpack = [this] { ++m_backpackRemovals; };
    hands.unregisterLoginItem = [this] {
        ++m_loginItemRemovals;
        return m_loginItemFailure;
    };
    hands.say = [this](const QString& line) { m_said << line; };
    return hands;
}

void TestUninstaller::aDownServiceLeavesOneNoteAndTheRestGoes_data()
{
    QTest::addColumn<bool>("deleteData");
    QTest::newRow("data kept") << false;
    QTest::newRow("data deleted when asked") << true;
}

void TestUninstaller::aDownServiceLeavesOneNoteAndTheRestGoes()
{
    QFETCH(bool, deleteData);
    const Environment environment = this->environment();
    ServiceInstaller installer = installed(environment);
    Preferences(environment).setFlag(Preferences::loginItemWanted, true);
    m_loginItemFailure = QStringLiteral("the login items can’t be changed now");

    const QStringList notes = Uninstaller(installer, hands()).run(deleteData);
    QCOMPARE(notes.size(), 1);
    QVERIFY2(notes.first().startsWith(QStringLiteral("Tidewatch couldn’t remove its hooks from Claude Code (")),
        qPrintable(notes.first()));
    QVERIFY(notes.first().endsWith(QStringLiteral(
        "). They point at Tidewatch’s local address, so they do nothing once the service is gone; install and "
        "uninstall again to remove them cleanly.")));
    QCOMPARE(Uninstaller::endTitle(notes), QStringLiteral("Tidewatch is mostly uninstalled."));

    // The rest went all the same.
    QVERIFY(!QFileInfo::exists(installer.jobFile()));
    QVERIFY(!QFileInfo::exists(environment.appFolder()));
    QCOMPARE(m_loginItemRemovals, 1);
    QCOMPARE(m_said,
        QStringList{QStringLiteral("Tidewatch: login item change failed: the login items can’t be changed now")});
    QCOMPARE(m_backpackRemovals, 0);
    QCOMPARE(QFileInfo::exists(environment.supportFolder()), !deleteData);
    QCOMPARE(QFileInfo::exists(environment.nodeFolder()), !deleteData);
    QCOMPARE(QFileInfo::exists(environment.logFolder()), !deleteData);
    QVERIFY(!Preferences(environment).flag(Preferences::loginItemWanted));
}

void TestUninstaller::aCopyThatMayNotManageTouchesNothing()
{
    const Environment environment
        = this->environment({{QStringLiteral("TIDEWATCH_API_PORT"), QStringLiteral("47321")}});
    const QString unit = m_scratch->write(QStringLiteral("unit-of-someone-else"), "[Service]\n");
    ServiceInstaller installer = installed(environment);
    QCOMPARE(Uninstaller(installer, hands()).run(true), QStringList{*environment.refusalSentence()});
    QCOMPARE(m_loginItemRemovals, 0);
    QVERIFY(m_manager->calls().isEmpty());
    QVERIFY(QFileInfo::exists(unit));
}

TIDEWATCH_E2E_MAIN(TestUninstaller)
#include "TestUninstaller.moc"
