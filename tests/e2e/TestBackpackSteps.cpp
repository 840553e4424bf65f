#include "Launch.h"
#include "RealPlaces.h"
#include "ScratchFolder.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

using namespace Qt::StringLiterals;

/// The headless Backpack steps, run as the built program runs them, on a
/// scratch rule that the real visudo checks.
class TestBackpackSteps : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void setUpTwiceAsksOnce();
    void removeRestoresWhatItFound_data();
    void removeRestoresWhatItFound();
    void refusalsComeFirst_data();
    void refusalsComeFirst();
    void anUnknownStepNamesTheKnownOnes();

private:
    QProcessEnvironment environment(const QHash<QString, QString>& extra = {}) const;
    QString rule() const { return m_scratch->file(QStringLiteral("sudoers.d/tidewatch")); }

    std::unique_ptr<ScratchFolder> m_scratch;
    QString m_pmsetCalls;
    QString m_pmset;
};

void TestBackpackSteps::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_pmsetCalls = m_scratch->file(QStringLiteral("pmset-calls"));
    m_pmset = m_scratch->write(QStringLiteral("bin/pmset"),
        QStringLiteral("#!/bin/sh\necho \"$@\" >> '%1'\n").arg(m_pmsetCalls).toUtf8(), 0755);
}

void TestBackpackSteps::cleanup()
{
    m_scratch.reset();
}

QProcessEnvironment TestBackpackSteps::environment(const QHash<QString, QString>& extra) const
{
    // Test ports where nothing answers: the service is down throughout.
    QHash<QString, QString> variables{{QStringLiteral("TIDEWATCH_SUPPORT"), m_scratch->file(QStringLiteral("support"))},
        {QStringLiteral("TIDEWATCH_API_PORT"), QStringLiteral("9")},
        {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QStringLiteral("9")}, {QStringLiteral("TIDEWATCH_SUDOERS"), rule()},
        {QStringLiteral("TIDEWATCH_PMSET"), m_pmset}};
    variables.insert(extra);
    return launchEnvironment(*m_scratch, variables);
}

void TestBackpackSteps::setUpTwiceAsksOnce()
{
    const LaunchResult first = launch({QStringLiteral("--run-step"), QStringLiteral("backpack")}, environment());
    QCOMPARE(first.code, 0);
    QCOMPARE(first.output,
        QStringLiteral("Setting up Backpack mode: a sudoers rule for exactly pmset -a disablesleep 0 and 1…\n"
                       "  rule  %1\n"
                       "OK: set up (choose Backpack in the menu bar, on the phone or on the glasses)\n")
            .arg(rule()));
    QVERIFY(QFile::exists(rule()));
    QCOMPARE(fileMode(rule()), 0440);

    // The second run finds the rule and runs no script.
    const LaunchResult second = launch({QStringLiteral("--run-step"), QStringLiteral("backpack")}, environment());
    QCOMPARE(second.code, 0);
    QVERIFY2(second.output.endsWith(QStringLiteral("OK: already set up\n")), qPrintable(second.output));
}

void TestBackpackSteps::removeRestoresWhatItFound_data()
{
    QTest::addColumn<QByteArray>("awake");
    QTest::addColumn<QString>("announced");
    QTest::addColumn<QByteArray>("pmsetCalls");
    QTest::addColumn<QByteArray>("kept");

    // Which saved values are worth restoring is the setup's own test; here, that the step restores and says so.
    QTest::newRow("switched from 1: back to 1")
        << QByteArray(R"({"mode":"backpack","until":1760007200,"minBattery":20,"backpack":{"prev":1,"applied":true}})")
        << u"  SleepDisabled back to 1, as Backpack found it\n"_s << QByteArray("-a disablesleep 1\n")
        << QByteArray(R"({"mode":"working","minBattery":20})");
    QTest::newRow("not switched: nothing to restore")
        << QByteArray(R"({"mode":"working","backpack":{"prev":0,"applied":false}})") << QString() << QByteArray()
        << QByteArray(R"({"mode":"working"})");
    QTest::newRow("no record at all") << QByteArray() << QString() << QByteArray() << QByteArray();
}

void TestBackpackSteps::removeRestoresWhatItFound()
{
    QFETCH(QByteArray, awake);
    QFETCH(QString, announced);
    QFETCH(QByteArray, pmsetCalls);
    QFETCH(QByteArray, kept);

    const QStringList removeStep{QStringLiteral("--run-step"), QStringLiteral("uninstall-backpack")};
    const LaunchResult absent = launch(removeStep, environment());
    QCOMPARE(absent.code, 0);
    QCOMPARE(absent.output, QStringLiteral("OK: not set up\n"));

    QCOMPARE(launch({QStringLiteral("--run-step"), QStringLiteral("backpack")}, environment()).code, 0);
    if (!awake.isEmpty())
        m_scratch->write(QStringLiteral("support/awake.json"), awake);
    const LaunchResult removed = launch(removeStep, environment());
    QCOMPARE(removed.code, 0);
    QCOMPARE(removed.output,
        QStringLiteral("Removing Backpack mode’s rule (%1)…\n").arg(rule()) + announced
            + QStringLiteral("OK: removed\n"));
    QVERIFY(!QFile::exists(rule()));
    QFile calls(m_pmsetCalls);
    QCOMPARE(calls.open(QIODevice::ReadOnly) ? calls.readAll() : QByteArray(), pmsetCalls);
    // With the service down, its record loses Backpack here, privately.
    QFile record(m_scratch->file(QStringLiteral("support/awake.json")));
    QCOMPARE(record.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(record.readAll()).object() : QJsonObject(),
        QJsonDocument::fromJson(kept).object());
    if (!kept.isEmpty())
        QCOMPARE(fileMode(record.fileName()), 0600);
}

void TestBackpackSteps::refusalsComeFirst_data()
{
    QTest::addColumn<QString>("step");
    QTest::addColumn<QString>("sudoers");
    QTest::addColumn<QString>("said");

    const QString testCopy
        = QStringLiteral("FAILED: This is a test copy (a TIDEWATCH_ variable is set), so it leaves "
                         "Backpack mode’s permission to your real Tidewatch. Set TIDEWATCH_SUDOERS to "
                         "a scratch path to test it.\n");
    const QString intoEtc
        = QStringLiteral("FAILED: TIDEWATCH_SUDOERS points into /etc: a test never touches sudo’s own folder.\n");
    // Every refusal is the setup's own test; here, that both steps stop on one before they act.
    QTest::newRow("set up, a test copy on the real path") << u"backpack"_s << QString() << testCopy;
    QTest::newRow("remove, into /etc") << u"uninstall-backpack"_s << u"/etc/sudoers.d/tidewatch"_s << intoEtc;
}

void TestBackpackSteps::refusalsComeFirst()
{
    QFETCH(QString, step);
    QFETCH(QString, sudoers);
    QFETCH(QString, said);
    const LaunchResult result
        = launch({QStringLiteral("--run-step"), step}, environment({{QStringLiteral("TIDEWATCH_SUDOERS"), sudoers}}));
    QCOMPARE(result.code, 1);
    QCOMPARE(result.output, said);
}

void TestBackpackSteps::anUnknownStepNamesTheKnownOnes()
{
    const LaunchResult result = launch({QStringLiteral("--run-step"), QStringLiteral("backpak")}, environment());
    QCOMPARE(result.code, 64);
    QCOMPARE(result.output,
        QStringLiteral("Unknown step 'backpak'. Use one of: service, integration, tailscale, uninstall-service, "
                       "backpack, uninstall-backpack\n"));
}

TIDEWATCH_E2E_MAIN(TestBackpackSteps)
#include "TestBackpackSteps.moc"
