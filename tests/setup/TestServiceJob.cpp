#include "setup/ServiceJob.h"

#include "ScratchFolder.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTest>
#include <QXmlStreamReader>

using namespace ServiceJob;

namespace {

// Everything a path may hold that a job file's syntax would misread.
const QString kAwkwardNode = QStringLiteral("/home/o'neil/My \"Tools\" & <more>/50% $HOME/bin/node");

Spec spec(const QString& node = QStringLiteral("/usr/bin/node"))
{
    return {QStringLiteral("com.harbourlab.tidewatch.daemon.test-47371"), node,
        QStringLiteral("/srv/tw support/app/daemon"), QStringLiteral("/srv/tw support/logs/daemon.log"),
        {{QStringLiteral("PATH"), QStringLiteral("/usr/bin:/bin")},
            {QStringLiteral("HOME"), QStringLiteral("/home/x")}}};
}

/// The keys of a property list's top dictionary and its ProgramArguments, as a reader sees them.
QStringList plistKeys(const QString& text, QStringList* arguments)
{
    QXmlStreamReader reader(text);
    QStringList keys;
    int depth = 0;
    QString lastKey;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement() && reader.name() == QLatin1StringView("dict"))
            ++depth;
        else if (reader.isEndElement() && reader.name() == QLatin1StringView("dict"))
            --depth;
        else if (reader.isStartElement() && reader.name() == QLatin1StringView("key")) {
            lastKey = reader.readElementText();
            if (depth == 1)
                keys << lastKey;
        } else if (reader.isStartElement() && reader.name() == QLatin1StringView("string")
            && lastKey == "ProgramArguments")
            *arguments << reader.readElementText();
    }
    return reader.hasError() ? QStringList{QStringLiteral("invalid: ") + reader.errorString()} : keys;
}

QStringList sortedKeys(const QHash<QString, QString>& variables)
{
    QStringList keys = variables.keys();
    keys.sort();
    return keys;
}

} // namespace

class TestServiceJob : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void path_data();
    void path();
    void variablesOfACopy();
    void plistHasExactlyItsKeys();
    void nodePathReadsBack_data();
    void nodePathReadsBack();
    void unitPassesSystemdsOwnCheck();
    void updates_data();
    void updates();
    void lsofPid_data();
    void lsofPid();
};

void TestServiceJob::path_data()
{
    QTest::addColumn<QString>("node");
    QTest::addColumn<QString>("path");

    const QString rest = QStringLiteral("/opt/homebrew/bin:/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin");
    QTest::newRow("the app's own Node.js leads") << "/s/node/v22.20.0/bin/node"
                                                 << "/s/node/v22.20.0/bin:/h/.local/bin:" + rest;
    QTest::newRow("no folder twice when Node.js is Homebrew's")
        << "/opt/homebrew/bin/node"
        << "/opt/homebrew/bin:/h/.local/bin:/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin";
    QTest::newRow("nor when it is the system's")
        << "/usr/bin/node"
        << "/usr/bin:/h/.local/bin:/opt/homebrew/bin:/usr/local/bin:/bin:/usr/sbin:/sbin";
}

void TestServiceJob::path()
{
    QFETCH(QString, node);
    QFETCH(QString, path);
    QCOMPARE(servicePath(node, QStringLiteral("/h")), path);
}

void TestServiceJob::variablesOfACopy()
{
    const Environment real({}, QStringLiteral("/h"));
    QCOMPARE(sortedKeys(serviceVariables(real, "/usr/bin/node")), (QStringList{"HOME", "LANG", "PATH"}));
    const Environment test({{QStringLiteral("TIDEWATCH_SUPPORT"), QStringLiteral("/tmp/tw")},
                               {QStringLiteral("TIDEWATCH_API_PORT"), QStringLiteral("47371")}},
        QStringLiteral("/h"));
    const QHash<QString, QString> variables = serviceVariables(test, "/usr/bin/node");
    QCOMPARE(variables.value("TIDEWATCH_LOGS"), QStringLiteral("/tmp/tw/logs"));
    QCOMPARE(variables.value("TIDEWATCH_API_PORT"), QStringLiteral("47371"));
    QCOMPARE(variables.value("TIDEWATCH_LOCAL_PORT"), QStringLiteral("47322"));
    QCOMPARE(variables.value("LANG"), QStringLiteral("en_US.UTF-8"));
    QCOMPARE(specFor(test, "/usr/bin/node").label, QStringLiteral("com.harbourlab.tidewatch.daemon.test-47371"));
}

void TestServiceJob::plistHasExactlyItsKeys()
{
    QStringList arguments;
    const QStringList keys = plistKeys(launchAgentPlist(spec(kAwkwardNode)), &arguments);
    QCOMPARE(keys,
        (QStringList{"EnvironmentVariables", "KeepAlive", "Label", "ProcessType", "ProgramArguments", "RunAtLoad",
            "StandardErrorPath", "StandardOutPath", "ThrottleInterval", "WorkingDirectory"}));
    QCOMPARE(arguments, (QStringList{kAwkwardNode, "/srv/tw support/app/daemon/src/main"}));
}

void TestServiceJob::nodePathReadsBack_data()
{
    QTest::addColumn<bool>("plist");
    QTest::addColumn<QString>("node");

    for (const bool plist : {true, false}) {
        const char* form = plist ? "property list" : "systemd unit";
        QTest::addRow("%s, a plain path", form) << plist << "/usr/bin/node";
        QTest::addRow("%s, quotes, blanks, & < > %% and $", form) << plist << kAwkwardNode;
        QTest::addRow("%s, a backslash", form) << plist << "/opt/a\\b/node";
    }
}

void TestServiceJob::nodePathReadsBack()
{
    QFETCH(bool, plist);
    QFETCH(QString, node);
    const QString text = plist ? launchAgentPlist(spec(node)) : systemdUnit(spec(node));
    QCOMPARE(nodePathOf(text), std::optional<QString>(node));
    QCOMPARE(nodePathOf(QStringLiteral("[Service]\nType=simple\n")), std::nullopt);
}

void TestServiceJob::unitPassesSystemdsOwnCheck()
{
    const QString analyze = QStandardPaths::findExecutable(QStringLiteral("systemd-analyze"));
    if (analyze.isEmpty())
        QSKIP("systemd-analyze isn't on this machine");
    ScratchFolder scratch;
    // A real executable and folder, so that the check judges the syntax and not their absence.
    const QString node = scratch.write(QStringLiteral("My Tools/50% node"), "#!/bin/sh\n", 0755);
    Spec job = spec(node);
    job.daemonFolder = scratch.path();
    job.logFile = scratch.path() + QStringLiteral("/daemon.log");
    job.variables.insert(QStringLiteral("TIDEWATCH_SUPPORT"), QStringLiteral("/tmp/a \"b\" $c %d"));
    const QString unit = scratch.write(QStringLiteral("tidewatch-test.service"), systemdUnit(job).toUtf8(), 0644);
    QProcess check;
    check.setProcessChannelMode(QProcess::MergedChannels);
    check.start(analyze, {QStringLiteral("verify"), QStringLiteral("--man=no"), unit});
    QVERIFY(check.waitForFinished(30000));
    const QString said = QString::fromUtf8(check.readAll());
    // What it says about the missing src/main is about this scratch folder, not the unit's syntax.
    QVERIFY2(!said.contains(QStringLiteral("Invalid")) && !said.contains(QStringLiteral("Unknown")), qPrintable(said));
    QVERIFY2(!said.contains(QStringLiteral("ignoring")), qPrintable(said));
    // A fatal setting ("path is not absolute") says neither of those words; the status tells.
    QVERIFY2(check.exitCode() == 0, qPrintable(said));
}

void TestServiceJob::updates_data()
{
    QTest::addColumn<QString>("bundled");
    QTest::addColumn<QString>("installed");
    QTest::addColumn<bool>("installedMain");
    QTest::addColumn<bool>("available");

    const QString none = QStringLiteral("<none>");
    QTest::newRow("the same stamp") << "7"
                                    << "7" << true << false;
    QTest::newRow("another stamp, a downgrade too") << "6"
                                                    << "7" << true << true;
    QTest::newRow("installed stamp missing, the app's present") << "7" << none << true << true;
    QTest::newRow("both stamps missing") << none << none << true << false;
    QTest::newRow("nothing installed to update") << "7"
                                                 << "6" << false << false;
}

void TestServiceJob::updates()
{
    QFETCH(QString, bundled);
    QFETCH(QString, installed);
    QFETCH(bool, installedMain);
    QFETCH(bool, available);
    ScratchFolder scratch;
    if (bundled != "<none>")
        scratch.write(QStringLiteral("bundle/.tidewatch-build"), bundled.toUtf8() + '\n');
    scratch.write(QStringLiteral("bundle/src/main.js"), "");
    if (installed != "<none>")
        scratch.write(QStringLiteral("app/daemon/.tidewatch-build"), installed.toUtf8());
    if (installedMain)
        scratch.write(QStringLiteral("app/daemon/src/main.js"), "");
    QCOMPARE(updateAvailable(scratch.path() + "/bundle", scratch.path() + "/app/daemon"), available);
    QVERIFY(!updateAvailable(std::nullopt, scratch.path() + "/app/daemon"));
}

void TestServiceJob::lsofPid_data()
{
    QTest::addColumn<QString>("output");
    QTest::addColumn<int>("pid");

    // launchctl's and systemctl's answers are read through ServiceManager's probe.
    QTest::newRow("the first line") << "4242\n4243" << 4242;
    QTest::newRow("a sign") << "+77" << 77;
    QTest::newRow("nothing") << "" << -1;
}

void TestServiceJob::lsofPid()
{
    QFETCH(QString, output);
    QTEST(pidFromLsof(output).value_or(-1), "pid");
}

QTEST_GUILESS_MAIN(TestServiceJob)
#include "TestServiceJob.moc"
