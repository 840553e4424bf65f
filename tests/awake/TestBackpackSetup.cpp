#include "awake/BackpackSetup.h"

#include "Golden.h"
#include "ScratchFolder.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>

using namespace BackpackSetup;

namespace {

Environment scratchEnvironment(const ScratchFolder& scratch, const QString& sudoers)
{
    return Environment({{QStringLiteral("TIDEWATCH_SUPPORT"), scratch.path() + QStringLiteral("/support")},
                           {QStringLiteral("TIDEWATCH_API_PORT"), QStringLiteral("1")},
                           {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QStringLiteral("2")},
                           {QStringLiteral("TIDEWATCH_SUDOERS"), sudoers}},
        scratch.path());
}

} // namespace

class TestBackpackSetup : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void words_data();
    void words();
    void removeScripts_data();
    void removeScripts();
    void quotingSurvivesTheShell();
    void appleScriptEscapesOnce();
    void ruleLandsValidated();
    void brokenRuleNeverLands();
    void printedScripts();
};

void TestBackpackSetup::words_data()
{
    Golden::addRows({QStringLiteral("backpack-setup.txt")});
}

void TestBackpackSetup::words()
{
    QFETCH(QString, section);
    QFETCH(QString, input);
    const QStringList in = Golden::parts(input);
    std::optional<QString> said;
    if (section == QStringLiteral("account")) {
        const QString user = QString(in.at(0)).replace(QStringLiteral("\\n"), QStringLiteral("\n"));
        said = accountProblem(user);
        // Scripts are printed for exactly the names the rule may hold.
        QCOMPARE(printScripts(user).second, !said);
    } else {
        ScratchFolder scratch;
        QFile::link(QStringLiteral("/etc"), scratch.path() + QStringLiteral("/etc-link"));
        Environment::Variables variables;
        if (!in.at(0).isEmpty())
            variables.insert(QStringLiteral("TIDEWATCH_SUDOERS"),
                QString(in.at(0)).replace(QStringLiteral("$SCRATCH"), scratch.path()));
        if (in.value(1) == QStringLiteral("test copy"))
            variables.insert(QStringLiteral("TIDEWATCH_LOGS"), scratch.path());
        said = refusal(Environment(variables, scratch.path()));
    }
    QTEST(said.value_or(QStringLiteral("—")), "expected");
}

void TestBackpackSetup::removeScripts_data()
{
    QTest::addColumn<QByteArray>("awake");
    QTest::addColumn<bool>("withPmset");
    QTest::addColumn<QString>("restore");

    QTest::newRow("applied from 1 puts 1 back")
        << QByteArray(R"({"backpack":{"prev":1,"applied":true}})") << true << "'/usr/bin/pmset' -a disablesleep 1";
    QTest::newRow("applied from 0 puts 0 back")
        << QByteArray(R"({"backpack":{"prev":0,"applied":true}})") << true << "'/usr/bin/pmset' -a disablesleep 0";
    QTest::newRow("not applied: nothing to put back")
        << QByteArray(R"({"backpack":{"prev":1,"applied":false}})") << true << "";
    QTest::newRow("a prev of 7 is no value to restore")
        << QByteArray(R"({"backpack":{"prev":7,"applied":true}})") << true << "";
    QTest::newRow("no record at all") << QByteArray("{}") << true << "";
    QTest::newRow("a scratch path without a stand-in writes no line")
        << QByteArray(R"({"backpack":{"prev":1,"applied":true}})") << false << "";
}

void TestBackpackSetup::removeScripts()
{
    QFETCH(QByteArray, awake);
    QFETCH(bool, withPmset);
    QFETCH(QString, restore);
    const QString script = removeScript(QStringLiteral("/x/rule"), Saved::fromAwakeFile(awake),
        withPmset ? std::optional<QString>(QStringLiteral("/usr/bin/pmset")) : std::nullopt);
    QStringList expected{QStringLiteral("set -e")};
    if (!restore.isEmpty())
        expected << restore;
    expected << QStringLiteral("/bin/rm -f '/x/rule'");
    QCOMPARE(script.split(QLatin1Char('\n')), expected);
}

void TestBackpackSetup::quotingSurvivesTheShell()
{
    // Whatever a value holds, the shell sees it as one word, unchanged.
    const QString hostile = QStringLiteral("it's $(touch /tmp/x) `id` \"q\" \\ ; rm -rf ~");
    ScratchFolder scratch;
    const QString out = scratch.file(QStringLiteral("out"));
    const QString script = QStringLiteral("printf '%s' ") + quoted(hostile) + QStringLiteral(" > ") + quoted(out);
    QCOMPARE(QProcess::execute(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), script}), 0);
    QFile file(out);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(QString::fromUtf8(file.readAll()), hostile);
}

void TestBackpackSetup::appleScriptEscapesOnce()
{
    const QString script = QStringLiteral("set -e\n/bin/chmod 0440 \"$tmp\"\nprintf '%s\\n' x");
    QCOMPARE(appleScript(script, QStringLiteral("Say \"yes\"")),
        QStringLiteral("do shell script \"set -e\\n/bin/chmod 0440 \\\"$tmp\\\"\\nprintf '%s\\\\n' x\" with prompt "
                       "\"Say \\\"yes\\\"\" with administrator privileges"));
}

void TestBackpackSetup::ruleLandsValidated()
{
    ScratchFolder scratch;
    const QString rule = scratch.path() + QStringLiteral("/sudoers.d/tidewatch");
    const Environment environment = scratchEnvironment(scratch, rule);
    QVERIFY(!isInstalled(environment));
    // Its mode, and a second run that asks for nothing, are the run step's own case end to end.
    QCOMPARE(install(environment, QStringLiteral("jane"), false), Outcome());
    QVERIFY(isInstalled(environment));
    QFile file(rule);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), 3);
    QCOMPARE(lines.at(2),
        QStringLiteral("jane ALL=(root) NOPASSWD: /usr/bin/pmset -a disablesleep 0, "
                       "/usr/bin/pmset -a disablesleep 1"));
    QCOMPARE(QDir(scratch.path() + QStringLiteral("/sudoers.d")).entryList(QDir::Files | QDir::Hidden),
        QStringList{QStringLiteral("tidewatch")});
}

void TestBackpackSetup::brokenRuleNeverLands()
{
    ScratchFolder scratch;
    const QString rule = scratch.path() + QStringLiteral("/sudoers.d/tidewatch");
    QString script = installScript(QStringLiteral("jane"), rule, false);
    script.replace(QStringLiteral("NOPASSWD:"), QStringLiteral("NOPASSWD"));
    const Outcome outcome = runPrivileged(scratchEnvironment(scratch, rule), script, installPrompt(), false);
    QVERIFY(outcome);
    QCOMPARE(outcome->kind, Failure::Kind::Failed);
    QVERIFY(!QFileInfo::exists(rule));
    QCOMPARE(QDir(scratch.path() + QStringLiteral("/sudoers.d")).entryList(QDir::Files | QDir::Hidden), QStringList());
}

void TestBackpackSetup::printedScripts()
{
    const auto [text, ok] = printScripts(QStringLiteral("jane"));
    QVERIFY(ok);
    QVERIFY(text.startsWith(QStringLiteral("# install (as root), for jane:\nset -e\numask 077\n")));
    QVERIFY(text.contains(QStringLiteral("/usr/sbin/chown root:wheel \"$tmp\"\n")));
    QVERIFY(text.contains(
        QStringLiteral("\n\n# remove (as root), Backpack having switched SleepDisabled from 0:\nset -e\n"
                       "'/usr/bin/pmset' -a disablesleep 0\n/bin/rm -f '/private/etc/sudoers.d/tidewatch'\n\n"
                       "# AppleScript:\ndo shell script \"set -e\\numask 077\\n")));
    QVERIFY(text.endsWith(QStringLiteral("\" with administrator privileges")));
}

QTEST_GUILESS_MAIN(TestBackpackSetup)
#include "TestBackpackSetup.moc"
