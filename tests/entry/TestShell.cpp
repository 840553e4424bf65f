#include "entry/ChildProcess.h"
#include "entry/Shell.h"

#include "ScratchFolder.h"

#include <QElapsedTimer>
#include <QFile>
#include <QEventLoop>
#include <QTest>
#include <QTimer>

#include <unistd.h>

namespace {

const QString kBash = QStringLiteral("/bin/bash");

ShellResult bash(const QString& line, double timeout = 20, const std::optional<Shell::Environment>& environment = {},
                 const QString& directory = QString())
{
    return Shell::run(kBash, {QStringLiteral("-c"), line}, environment, directory, timeout);
}

} // namespace

class TestShell : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void outputAndStatus_data();
    void outputAndStatus();
    void lingeringChildLeavesStdoutEmpty();
    void childIgnoringTermIsKilled();
    void childThatEndsOnTermIsNotKilled();
    void launchFailure_data();
    void launchFailure();
    void bothPipesFullDoNotDeadlock();
    void environmentRules();
    void givenEnvironmentReplacesAll();
    void workingDirectory();
    void noDescriptorLeaksIntoTheChild();
    void asyncDeliversOnTheCallersThread();
    void stripEscapes_data();
    void stripEscapes();
};

void TestShell::outputAndStatus_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("out");
    QTest::addColumn<QString>("err");
    QTest::addColumn<QString>("combined");

    QTest::newRow("output trimmed at both ends") << "printf '\\n  hi there \\n\\n'" << 0 << "hi there" << "" << "hi there";
    QTest::newRow("error apart from output") << "echo out; echo err >&2; exit 4" << 4 << "out" << "err" << "out\nerr";
    QTest::newRow("only error") << "echo oops >&2; exit 1" << 1 << "" << "oops" << "oops";
    QTest::newRow("nothing at all") << "true" << 0 << "" << "" << "";
    QTest::newRow("invalid UTF-8 is repaired, never a failure")
        << "printf 'a\\377b'" << 0 << QStringLiteral("a\uFFFDb") << "" << QStringLiteral("a\uFFFDb");
    QTest::newRow("a question reads end-of-file rather than hanging")
        << "read answer; echo \"got [$answer]\"" << 0 << "got []" << "" << "got []";
    QTest::newRow("a signal's number is the status") << "kill -USR1 $$" << 10 << "" << "" << "";
}

void TestShell::outputAndStatus()
{
    QFETCH(QString, line);
    QFETCH(int, status);
    QFETCH(QString, out);
    QFETCH(QString, err);
    QFETCH(QString, combined);
    const ShellResult result = bash(line);
    QCOMPARE(result.status, status);
    QCOMPARE(result.out, out);
    QCOMPARE(result.err, err);
    QCOMPARE(result.combined(), combined);
    QVERIFY(!result.timedOut);
}

void TestShell::lingeringChildLeavesStdoutEmpty()
{
    // A background process holding the pipes must not hold the caller: the
    // pipes get two seconds, and an unfinished stream comes back empty.
    QElapsedTimer clock;
    clock.start();
    const ShellResult result = bash(QStringLiteral(
        "echo one; printf 'two\\rthree\\n'; (sleep 6) & echo four; printf 'five-no-newline'; exit 3"));
    const qint64 elapsed = clock.elapsed();
    QCOMPARE(result.status, 3);
    QVERIFY(!result.timedOut);
    QCOMPARE(result.out, QString());
    QVERIFY2(elapsed >= 1900 && elapsed < 4500, qPrintable(QString::number(elapsed)));
}

void TestShell::childIgnoringTermIsKilled()
{
    QElapsedTimer clock;
    clock.start();
    const ShellResult result = bash(QStringLiteral("trap '' TERM; echo started; while :; do sleep 0.1; done"), 1);
    const qint64 elapsed = clock.elapsed();
    QVERIFY(result.timedOut);
    QCOMPARE(result.status, 9);
    QCOMPARE(result.out, QStringLiteral("started"));
    // 1 s limit, 2 s for SIGTERM, then SIGKILL.
    QVERIFY2(elapsed >= 2900 && elapsed < 6500, qPrintable(QString::number(elapsed)));
}

void TestShell::childThatEndsOnTermIsNotKilled()
{
    const ShellResult result = bash(QStringLiteral("exec sleep 30"), 0.5);
    QVERIFY(result.timedOut);
    QCOMPARE(result.status, 15);
}

void TestShell::launchFailure_data()
{
    QTest::addColumn<QString>("executable");
    QTest::newRow("no such program") << "/nonexistent/tool";
    QTest::newRow("a folder is no program") << "/tmp";
}

void TestShell::launchFailure()
{
    QFETCH(QString, executable);
    const ShellResult result = Shell::run(executable, {}, std::nullopt, QString(), 5);
    QCOMPARE(result.status, -1);
    QVERIFY(!result.timedOut);
    QVERIFY(result.out.isEmpty());
    QVERIFY2(!result.err.isEmpty(), "the system's reason is given");
}

void TestShell::bothPipesFullDoNotDeadlock()
{
    // Far more than a pipe holds, on both streams at once.
    const ShellResult result = bash(QStringLiteral("head -c 3000000 /dev/zero | tr '\\0' a >&2 & "
                                                   "head -c 3000000 /dev/zero | tr '\\0' b; wait"),
                                    30);
    QVERIFY(!result.timedOut);
    QCOMPARE(result.out.size(), 3000000);
    QCOMPARE(result.err.size(), 3000000);
}

void TestShell::environmentRules()
{
    const Shell::Environment environment = Shell::environment();
    QVERIFY(environment.value(QStringLiteral("PATH")).startsWith(Shell::searchPath()));
    QVERIFY(Shell::searchPath().endsWith(
        QStringLiteral(":/opt/homebrew/bin:/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin")));
    QVERIFY(Shell::searchPath().startsWith(QLatin1Char('/')));
    QVERIFY(Shell::searchPath().section(QLatin1Char(':'), 0, 0).endsWith(QStringLiteral("/.local/bin")));

    // The inherited values are the test's own; HOME is the system's, LANG only when absent.
    const QByteArray savedHome = qgetenv("HOME");
    const QByteArray savedLang = qgetenv("LANG");
    qputenv("HOME", "/somewhere/else");
    qunsetenv("LANG");
    const ShellResult missing = bash(QStringLiteral("echo \"$HOME|$LANG\""), 5);
    qputenv("LANG", "de_DE.UTF-8");
    const ShellResult present = bash(QStringLiteral("echo \"$LANG\""), 5);
    qputenv("HOME", savedHome);
    savedLang.isNull() ? qunsetenv("LANG") : qputenv("LANG", savedLang);

    QVERIFY2(!missing.out.startsWith(QStringLiteral("/somewhere/else")), qPrintable(missing.out));
    QVERIFY(missing.out.endsWith(QStringLiteral("|en_US.UTF-8")));
    QCOMPARE(present.out, QStringLiteral("de_DE.UTF-8"));
}

void TestShell::givenEnvironmentReplacesAll()
{
    const ShellResult result = Shell::run(QStringLiteral("/usr/bin/env"), {},
                                          Shell::Environment{{QStringLiteral("ONLY"), QStringLiteral("this")}},
                                          QString(), 5);
    QCOMPARE(result.out, QStringLiteral("ONLY=this"));
}

void TestShell::workingDirectory()
{
    ScratchFolder scratch;
    QCOMPARE(bash(QStringLiteral("pwd -P"), 5, std::nullopt, scratch.path()).out,
             QFileInfo(scratch.path()).canonicalFilePath());
}

void TestShell::noDescriptorLeaksIntoTheChild()
{
    // Descriptors this program holds open (a file, another child's pipe) stay behind.
    ScratchFolder scratch;
    QFile file(scratch.write(QStringLiteral("held"), "x"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    int pipe[2];
    QVERIFY(ChildProcess::makePipe(pipe));
    const ShellResult result = Shell::run(QStringLiteral("/bin/ls"), {QStringLiteral("/proc/self/fd")}, std::nullopt,
                                          QString(), 5);
    ::close(pipe[0]);
    ::close(pipe[1]);
    const QStringList open = result.out.split(QLatin1Char('\n'));
    QVERIFY(open.contains(QStringLiteral("1")));
    for (int fd : {file.handle(), pipe[0], pipe[1]})
        QVERIFY2(!open.contains(QString::number(fd)), qPrintable(result.out));
}

void TestShell::asyncDeliversOnTheCallersThread()
{
    QObject context;
    std::optional<ShellResult> result;
    Qt::HANDLE deliveredOn = nullptr;
    QEventLoop loop;
    Shell::runAsync(kBash, {QStringLiteral("-c"), QStringLiteral("echo async")}, std::nullopt, 5, &context,
                    [&](ShellResult value) {
                        result = std::move(value);
                        deliveredOn = QThread::currentThreadId();
                        loop.quit();
                    });
    QTimer::singleShot(10000, &loop, &QEventLoop::quit);
    loop.exec();
    QVERIFY(result);
    QCOMPARE(result->out, QStringLiteral("async"));
    QCOMPARE(deliveredOn, QThread::currentThreadId());
}

void TestShell::stripEscapes_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("stripped");

    QTest::newRow("colour") << "\x1B[1;32mgreen\x1B[0m" << "green";
    QTest::newRow("cursor movement and erase") << "\x1B[2K\x1B[1Gprogress" << "progress";
    QTest::newRow("private mode") << "\x1B[?25lhidden cursor\x1B[?25h" << "hidden cursor";
    QTest::newRow("a window title") << "\x1B]0;title\x07text" << "text";
    QTest::newRow("an unfinished title is left") << "\x1B]0;title" << "\x1B]0;title";
    QTest::newRow("plain brackets are text") << "[1;32m" << "[1;32m";
    QTest::newRow("nothing but escapes") << "\x1B[0m\x1B]2;x\x07" << "";
}

void TestShell::stripEscapes()
{
    QFETCH(QString, text);
    QFETCH(QString, stripped);
    QCOMPARE(Shell::stripEscapes(text), stripped);
}

QTEST_GUILESS_MAIN(TestShell)
#include "TestShell.moc"
