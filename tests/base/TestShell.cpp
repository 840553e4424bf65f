#include "base/Shell.h"

#include "ScratchFolder.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QScopeGuard>
#include <QTest>
#include <QThread>

#include <cerrno>
#include <csignal>
#include <pwd.h>
#include <system_error>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

const QString kBash = QStringLiteral("/bin/bash");

ShellResult bash(const QString& line, double timeout = 20, const std::optional<Shell::Environment>& environment = {},
    const QString& directory = QString())
{
    return Shell::run(kBash, {QStringLiteral("-c"), line}, environment, directory, timeout);
}

QString sentenceFor(int error)
{
    return QString::fromStdString(std::generic_category().message(error));
}

// The home as the user database has it, asked here without the code under test.
QString userDatabaseHome()
{
    const passwd* entry = ::getpwuid(::getuid());
    return entry ? QString::fromLocal8Bit(entry->pw_dir) : QString();
}

QHash<QString, QString> variablesOf(const QString& envOutput)
{
    QHash<QString, QString> variables;
    for (const QString& line : envOutput.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        variables.insert(line.section(QLatin1Char('='), 0, 0), line.section(QLatin1Char('='), 1));
    return variables;
}

int openDescriptors()
{
    return int(QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System).size());
}

} // namespace

// Lets QCOMPARE show a result field by field.
char* toString(const ShellResult& result)
{
    return QTest::toString(QStringLiteral("{status %1, out \"%2\", err \"%3\", timedOut %4}")
                               .arg(result.status)
                               .arg(result.out.left(200), result.err.left(200))
                               .arg(result.timedOut));
}

class TestShell : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void outputAndStatus_data();
    void outputAndStatus();
    void endsInItsTime_data();
    void endsInItsTime();
    void lingeringChildIsNeitherBlockedNorKilled();
    void launchFailure_data();
    void launchFailure();
    void bothPipesFullDoNotDeadlock();
    void environmentRules_data();
    void environmentRules();
    void givenEnvironmentReplacesAll();
    void workingDirectory();
    void noDescriptorLeaksOrStaysBehind();
    void asyncDeliversOnTheContextsThreadWhileItLives();
    void stripEscapes_data();
    void stripEscapes();
};

void TestShell::initTestCase()
{
    // From the start, so that no answer can come from the inherited HOME.
    qputenv("HOME", "/nonexistent/home-from-the-environment");
}

void TestShell::outputAndStatus_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("out");
    QTest::addColumn<QString>("err");
    QTest::addColumn<QString>("combined");

    const QString none;
    QTest::newRow("output trimmed at both ends, inner lines kept")
        << "printf '\\n \\t hi\\n\\nthere \\n\\n'" << 0 << QStringLiteral("hi\n\nthere") << none
        << QStringLiteral("hi\n\nthere");
    QTest::newRow("error apart from output") << "echo out; echo err >&2; exit 4" << 4 << QStringLiteral("out")
                                             << QStringLiteral("err") << QStringLiteral("out\nerr");
    QTest::newRow("only error") << "echo oops >&2; exit 1" << 1 << none << QStringLiteral("oops")
                                << QStringLiteral("oops");
    QTest::newRow("invalid UTF-8 is repaired, never a failure")
        << "printf 'a\\377b'; printf '\\303' >&2" << 0 << QStringLiteral("a\uFFFDb") << QStringLiteral("\uFFFD")
        << QStringLiteral("a\uFFFDb\n\uFFFD");
    QTest::newRow("a question reads end-of-file rather than hanging")
        << "read answer; echo \"got [$answer] $?\"" << 0 << QStringLiteral("got [] 1") << none
        << QStringLiteral("got [] 1");
    QTest::newRow("a signal's number is the status") << "kill -USR1 $$" << int(SIGUSR1) << none << none << none;
}

void TestShell::outputAndStatus()
{
    QFETCH(QString, line);
    QFETCH(int, status);
    QFETCH(QString, out);
    QFETCH(QString, err);
    const ShellResult result = bash(line);
    QCOMPARE(result, (ShellResult{status, out, err, false}));
    QTEST(result.combined(), "combined");
}

void TestShell::endsInItsTime_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<double>("limit");
    QTest::addColumn<ShellResult>("result");
    QTest::addColumn<int>("atLeastMs");
    QTest::addColumn<int>("belowMs");

    // The pipes get two seconds after the child's end, and a stream still
    // held then comes back empty, never partial.
    QTest::newRow("a lingering child holding both streams: both empty")
        << u"echo one; printf 'two\\rthree\\n'; (sleep 6) & echo four; printf 'five-no-newline'; exit 3"_s << 20.0
        << ShellResult{3, QString(), QString(), false} << 1900 << 4500;
    QTest::newRow("a lingering child holding only standard error: the output is whole")
        << u"echo out; (sleep 6 >/dev/null) & echo err >&2; exit 3"_s << 20.0
        << ShellResult{3, u"out"_s, QString(), false} << 1900 << 4500;
    // 1 s limit, 2 s for SIGTERM, then SIGKILL; the pipes close with it.
    QTest::newRow("a child ignoring TERM is killed")
        << u"trap '' TERM; echo started; while :; do sleep 0.1; done"_s << 1.0
        << ShellResult{int(SIGKILL), u"started"_s, QString(), true} << 2900 << 6500;
    QTest::newRow("a child that ends on TERM is not killed")
        << u"echo waiting; exec sleep 30"_s << 0.5 << ShellResult{int(SIGTERM), u"waiting"_s, QString(), true} << 0
        << 2400;
}

void TestShell::endsInItsTime()
{
    QFETCH(QString, line);
    QFETCH(double, limit);
    QFETCH(int, atLeastMs);
    QFETCH(int, belowMs);
    QElapsedTimer clock;
    clock.start();
    const ShellResult result = bash(line, limit);
    const qint64 elapsed = clock.elapsed();
    QTEST(result, "result");
    QVERIFY2(elapsed >= atLeastMs && elapsed < belowMs, qPrintable(QString::number(elapsed)));
}

void TestShell::lingeringChildIsNeitherBlockedNorKilled()
{
    // What it writes after the call gave up is drained, not left to fill the
    // pipe and not cut off with a broken pipe.
    ScratchFolder scratch;
    const QString mark = scratch.file(QStringLiteral("alive"));
    const ShellResult result
        = bash(QStringLiteral("(sleep 3; head -c 200000 /dev/zero && echo done > '%1') & exit 0").arg(mark));
    QCOMPARE(result.status, 0);
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(mark), 8000);
}

void TestShell::launchFailure_data()
{
    QTest::addColumn<QString>("executable");
    QTest::addColumn<QString>("directory");
    QTest::addColumn<int>("error");

    QTest::newRow("no such program") << u"/nonexistent/tool"_s << u""_s << ENOENT;
    QTest::newRow("a file without the right to run") << u"scratch:tool"_s << u""_s << EACCES;
    QTest::newRow("no such working directory") << kBash << u"/nonexistent/folder"_s << ENOENT;
}

void TestShell::launchFailure()
{
    QFETCH(QString, executable);
    QFETCH(QString, directory);
    QFETCH(int, error);
    ScratchFolder scratch;
    if (executable.startsWith(QStringLiteral("scratch:")))
        executable = scratch.write(executable.mid(8), "#!/bin/sh\necho ran\n", 0644);
    const ShellResult result
        = Shell::run(executable, {QStringLiteral("-c"), QStringLiteral("echo ran")}, std::nullopt, directory, 5);
    QCOMPARE(result, (ShellResult{-1, QString(), sentenceFor(error), false}));
    QCOMPARE(result.combined(), sentenceFor(error));
}

void TestShell::bothPipesFullDoNotDeadlock()
{
    // Far more than a pipe holds, on both streams at once.
    const ShellResult result = bash(QStringLiteral("head -c 3000000 /dev/zero | tr '\\0' a >&2 & "
                                                   "head -c 4000000 /dev/zero | tr '\\0' b; wait"),
        60);
    QVERIFY(!result.timedOut);
    QCOMPARE(result.status, 0);
    QCOMPARE(result.out.size(), 4000000);
    QCOMPARE(result.err.size(), 3000000);
    QCOMPARE(result.out.count(QLatin1Char('b')), 4000000);
}

void TestShell::environmentRules_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("inherited"); // null: absent
    QTest::addColumn<QString>("seen"); // null: absent in the child

    const QString fixed = Shell::searchPath();
    QTest::newRow("LANG absent becomes en_US.UTF-8") << QByteArray("LANG") << QByteArray() << "en_US.UTF-8";
    QTest::newRow("LANG present is kept") << QByteArray("LANG") << QByteArray("de_DE.UTF-8") << "de_DE.UTF-8";
    QTest::newRow("LANG present but empty is kept") << QByteArray("LANG") << QByteArray("") << "";
    QTest::newRow("HOME is the user database's, whatever we inherit")
        << QByteArray("HOME") << QByteArray("/somewhere/else") << userDatabaseHome();
    QTest::newRow("PATH: the fixed folders win over the inherited ones") << QByteArray(
        "PATH") << QByteArray("/inherited/bin:/usr/bin") << fixed + QStringLiteral(":/inherited/bin:/usr/bin");
    QTest::newRow("PATH absent is the fixed folders alone") << QByteArray("PATH") << QByteArray() << fixed;
    QTest::newRow("anything else passes unchanged")
        << QByteArray("TIDEWATCH_SHELL_PROBE") << QByteArray("a b=c") << "a b=c";
    QTest::newRow("and absent stays absent") << QByteArray("TIDEWATCH_SHELL_PROBE") << QByteArray() << QString();
}

void TestShell::environmentRules()
{
    QFETCH(QByteArray, name);
    QFETCH(QByteArray, inherited);
    QFETCH(QString, seen);
    const bool had = qEnvironmentVariableIsSet(name.constData());
    const QByteArray old = qgetenv(name.constData());
    inherited.isNull() ? qunsetenv(name.constData()) : qputenv(name.constData(), inherited);
    const auto restore = qScopeGuard([&] { had ? qputenv(name.constData(), old) : qunsetenv(name.constData()); });
    const ShellResult result = Shell::run(QStringLiteral("/usr/bin/env"), {}, std::nullopt, QString(), 5);
    QCOMPARE(result.status, 0);
    const QHash<QString, QString> variables = variablesOf(result.out);
    QCOMPARE(variables.contains(QString::fromLatin1(name)), !seen.isNull());
    QCOMPARE(variables.value(QString::fromLatin1(name)), seen);
    QCOMPARE(Shell::environment().value(QString::fromLatin1(name)), seen);
}

void TestShell::givenEnvironmentReplacesAll()
{
    // Only what is given; given nothing, nothing at all, not even PATH.
    for (const Shell::Environment& given :
        {Shell::Environment{{QStringLiteral("ONLY"), QStringLiteral("this")}}, Shell::Environment{}}) {
        const ShellResult result = Shell::run(QStringLiteral("/usr/bin/env"), {}, given, QString(), 5);
        QCOMPARE(result.status, 0);
        QCOMPARE(variablesOf(result.out), given);
    }
}

void TestShell::workingDirectory()
{
    ScratchFolder scratch;
    QCOMPARE(bash(QStringLiteral("pwd -P"), 5, std::nullopt, scratch.path()).out,
        QFileInfo(scratch.path()).canonicalFilePath());
    QCOMPARE(bash(QStringLiteral("pwd -P"), 5).out, QFileInfo(QDir::currentPath()).canonicalFilePath());
}

void TestShell::noDescriptorLeaksOrStaysBehind()
{
    if (!QFileInfo::exists(QStringLiteral("/proc/self/fd")))
        QSKIP("needs /proc");
    const int before = openDescriptors();
    // Ours are close-on-exec; this pipe stands for a library whose aren't.
    int careless[2];
    QVERIFY(::pipe(careless) == 0);
    const ShellResult result
        = Shell::run(QStringLiteral("/bin/ls"), {QStringLiteral("/proc/self/fd")}, std::nullopt, QString(), 5);
    ::close(careless[0]);
    ::close(careless[1]);
    // The standard three, and the folder ls itself has open to list.
    QCOMPARE(result.out.split(QLatin1Char('\n')), (QStringList{"0", "1", "2", "3"}));

    // Nothing stays open here after a run, a timeout or either failure to start.
    bash(QStringLiteral("exec sleep 30"), 0.2);
    Shell::run(QStringLiteral("/nonexistent/tool"), {}, std::nullopt, QString(), 5);
    bash(QStringLiteral("true"), 5, std::nullopt, QStringLiteral("/nonexistent/folder"));
    QCOMPARE(openDescriptors(), before);
}

void TestShell::asyncDeliversOnTheContextsThreadWhileItLives()
{
    QObject context;
    std::optional<ShellResult> result;
    QThread* deliveredOn = nullptr;
    Shell::runAsync(kBash, {QStringLiteral("-c"), QStringLiteral("echo async; exit 2")}, std::nullopt, 5, &context,
        [&](const ShellResult& value) {
            result = value;
            deliveredOn = QThread::currentThread();
        });
    QTRY_VERIFY_WITH_TIMEOUT(result, 10000);
    QCOMPARE(*result, (ShellResult{2, QStringLiteral("async"), QString(), false}));
    QCOMPARE(deliveredOn, QThread::currentThread());

    bool called = false;
    auto* gone = new QObject;
    Shell::runAsync(kBash, {QStringLiteral("-c"), QStringLiteral("sleep 0.3")}, std::nullopt, 5, gone,
        [&called](const ShellResult&) { called = true; });
    delete gone;
    QTest::qWait(1500);
    QVERIFY(!called);
}

void TestShell::stripEscapes_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("stripped");

    QTest::newRow("private mode") << u"\x1B[?25lhidden cursor\x1B[?25h"_s << u"hidden cursor"_s;
    QTest::newRow("intermediate bytes (cursor shape)") << u"\x1B[2 qblock"_s << u"block"_s;
    QTest::newRow("a window title") << u"\x1B]0;title\x07text"_s << u"text"_s;
    QTest::newRow("text between sequences keeps its order") << u"a\x1B[1mb\x1B]2;t\x07"
                                                               "c\x1B[0m"_s
                                                            << u"abc"_s;
    QTest::newRow("an unfinished title is left") << u"\x1B]0;title"_s << u"\x1B]0;title"_s;
    QTest::newRow("a lone escape is left") << u"a\x1B"_s << u"a\x1B"_s;
    QTest::newRow("plain brackets are text") << u"[1;32m and ]0;x\x07"_s << u"[1;32m and ]0;x\x07"_s;
    QTest::newRow("non-ASCII around a sequence")
        << QStringLiteral("caf\u00E9 \x1B[1m\u2713") << QStringLiteral("caf\u00E9 \u2713");
}

void TestShell::stripEscapes()
{
    QFETCH(QString, text);
    QTEST(Shell::stripEscapes(text), "stripped");
}

QTEST_GUILESS_MAIN(TestShell)
#include "TestShell.moc"
