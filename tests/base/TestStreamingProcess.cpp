#include "base/StreamingProcess.h"

#include "ScratchFolder.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTest>

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <system_error>

namespace {

/// Lines and the end of one run, collected from the process's thread.
struct Run {
    std::mutex lock;
    std::condition_variable changed;
    QStringList lines;
    QList<int> exits;
    bool lineAfterExit = false;

    StreamingProcess::LineHandler onLine()
    {
        return [this](const QString& line) {
            std::lock_guard guard(lock);
            if (!exits.isEmpty())
                lineAfterExit = true;
            lines << line;
            changed.notify_all();
        };
    }
    StreamingProcess::ExitHandler onExit()
    {
        return [this](int status) {
            std::lock_guard guard(lock);
            exits << status;
            changed.notify_all();
        };
    }
    bool waitForExit(int seconds)
    {
        std::unique_lock guard(lock);
        return changed.wait_for(guard, std::chrono::seconds(seconds), [this] { return !exits.isEmpty(); });
    }
    bool waitForLines(qsizetype count, int seconds)
    {
        std::unique_lock guard(lock);
        return changed.wait_for(guard, std::chrono::seconds(seconds), [&] { return lines.size() >= count; });
    }
};

void startBash(StreamingProcess& process, Run& run, const QString& line,
    const std::optional<Shell::Environment>& environment = std::nullopt)
{
    process.start(QStringLiteral("/bin/bash"), {QStringLiteral("-c"), line}, environment, run.onLine(), run.onExit());
}

int countOf(const QString& folder)
{
    return int(QDir(folder).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size());
}

} // namespace

class TestStreamingProcess : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lingeringChildEndsAfterTheGrace();
    void lines_data();
    void lines();
    void manyLinesAcrossManyReads();
    void launchFailure();
    void destroyedEarlyFallsSilentAndStillReaps();
    void destroyedFromItsOwnCallback();
    void nothingLeftBehind();
    void takeLines_data();
    void takeLines();
};

void TestStreamingProcess::lingeringChildEndsAfterTheGrace()
{
    QElapsedTimer clock;
    clock.start();
    Run run;
    StreamingProcess process;
    startBash(process, run,
        QStringLiteral("echo one; printf 'two\\rthree\\n'; (sleep 6) & echo four; printf 'five-no-newline'; exit 3"));
    QVERIFY(run.waitForExit(15));
    const qint64 elapsed = clock.elapsed();
    std::lock_guard guard(run.lock);
    QCOMPARE(run.exits, QList<int>{3});
    QCOMPARE(run.lines, (QStringList{"one", "two", "three", "four", "five-no-newline"}));
    // The background sleep holds the pipe for 6 s; the end comes 2 s after the shell's.
    QVERIFY2(elapsed >= 2000 && elapsed < 4000, qPrintable(QString::number(elapsed)));
    QVERIFY(!run.lineAfterExit);
}

void TestStreamingProcess::lines_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<int>("status");

    QTest::newRow("CR LF gives no empty lines") << "printf 'a\\r\\nb\\r\\n'" << QStringList{"a", "b"} << 0;
    QTest::newRow("a progress display gives a line for each state")
        << "printf '10%%\\r50%%\\r100%%\\n'" << QStringList{"10%", "50%", "100%"} << 0;
    QTest::newRow("escape-only and blank lines give nothing")
        << "printf '\\033[2K\\n   \\n\\t\\n\\nreal\\n\\033]0;t\\007\\r\\n\\033[0m'" << QStringList{"real"} << 0;
    QTest::newRow("error and output are one stream in order")
        << "echo first; echo second >&2; echo third; exit 2" << QStringList{"first", "second", "third"} << 2;
    QTest::newRow("a last line without newline comes at the end, trimmed of spaces and tabs, inner ones kept")
        << "echo first; printf ' \\t last  line \\t'" << QStringList{"first", "last  line"} << 0;
    QTest::newRow("a character split across two writes arrives whole")
        << "printf 'caf\\303'; sleep 0.3; printf '\\251 ok\\n'" << QStringList{QStringLiteral("caf\u00E9 ok")} << 0;
    QTest::newRow("invalid bytes are repaired in their own line")
        << "printf 'ok\\nbad\\377line\\nend\\303'"
        << QStringList{"ok", QStringLiteral("bad\uFFFDline"), QStringLiteral("end\uFFFD")} << 0;
    QTest::newRow("no output at all") << "exit 0" << QStringList{} << 0;
}

void TestStreamingProcess::lines()
{
    QFETCH(QString, line);
    QFETCH(int, status);
    Run run;
    StreamingProcess process;
    startBash(process, run, line);
    QVERIFY(run.waitForExit(15));
    std::lock_guard guard(run.lock);
    QTEST(run.lines, "lines");
    QCOMPARE(run.exits, QList<int>{status});
    QVERIFY(!run.lineAfterExit);
}

void TestStreamingProcess::manyLinesAcrossManyReads()
{
    // Megabytes in reads of whatever size the pipe gives: no line lost, split or doubled.
    Run run;
    StreamingProcess process;
    process.start(QStringLiteral("/usr/bin/seq"), {QStringLiteral("1"), QStringLiteral("400000")}, std::nullopt,
        run.onLine(), run.onExit());
    QVERIFY(run.waitForExit(60));
    std::lock_guard guard(run.lock);
    QCOMPARE(run.exits, QList<int>{0});
    QCOMPARE(run.lines.size(), 400000);
    for (int i = 0; i < run.lines.size(); ++i) {
        if (run.lines.at(i) != QString::number(i + 1))
            QFAIL(qPrintable(QStringLiteral("line %1 is \"%2\"").arg(i + 1).arg(run.lines.at(i))));
    }
}

void TestStreamingProcess::launchFailure()
{
    // The launch itself is the shell's, proven there; here its failure becomes the one line.
    Run run;
    StreamingProcess process;
    process.start(QStringLiteral("/nonexistent/installer"), {}, std::nullopt, run.onLine(), run.onExit());
    QVERIFY(run.waitForExit(5));
    std::lock_guard guard(run.lock);
    QCOMPARE(run.exits, QList<int>{-1});
    QCOMPARE(run.lines,
        QStringList{
            QStringLiteral("Couldn’t start: ") + QString::fromStdString(std::generic_category().message(ENOENT))});
}

void TestStreamingProcess::destroyedEarlyFallsSilentAndStillReaps()
{
    ScratchFolder scratch;
    const QString mark = scratch.file(QStringLiteral("alive"));
    Run run;
    {
        StreamingProcess process;
        // After the object is gone it writes on: drained, it is neither blocked nor cut off.
        startBash(process, run,
            QStringLiteral("echo $$; echo early; sleep 0.5; head -c 200000 /dev/zero && echo late && echo done > '%1'")
                .arg(mark));
        QVERIFY(run.waitForLines(2, 5));
    }
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(mark), 8000);
    std::lock_guard guard(run.lock);
    const pid_t pid = pid_t(run.lines.first().toInt());
    QVERIFY(pid > 0);
    // Reaped, not left a zombie: the pid is gone altogether.
    QTRY_VERIFY_WITH_TIMEOUT(::kill(pid, 0) == -1 && errno == ESRCH, 5000);
    QCOMPARE(run.lines, (QStringList{QString::number(pid), "early"}));
    QVERIFY(run.exits.isEmpty());
}

void TestStreamingProcess::destroyedFromItsOwnCallback()
{
    Run run;
    auto* process = new StreamingProcess;
    const StreamingProcess::LineHandler collect = run.onLine();
    process->start(
        QStringLiteral("/bin/bash"),
        {QStringLiteral("-c"), QStringLiteral("echo one; echo two; sleep 0.2; echo three")}, std::nullopt,
        [&process, collect](const QString& line) {
            delete process;
            process = nullptr;
            collect(line);
        },
        run.onExit());
    QVERIFY(run.waitForLines(1, 5));
    QTest::qWait(1000);
    std::lock_guard guard(run.lock);
    QCOMPARE(run.lines, QStringList{"one"});
    QVERIFY(run.exits.isEmpty());
    QVERIFY(!process);
}

void TestStreamingProcess::nothingLeftBehind()
{
    if (!QFileInfo::exists(QStringLiteral("/proc/self/task")))
        QSKIP("needs /proc");
    const int threads = countOf(QStringLiteral("/proc/self/task"));
    const int descriptors = countOf(QStringLiteral("/proc/self/fd"));
    for (const QString& executable : {QStringLiteral("/bin/bash"), QStringLiteral("/nonexistent/tool")}) {
        Run run;
        StreamingProcess process;
        process.start(executable, {QStringLiteral("-c"), QStringLiteral("echo x; exit 1")}, std::nullopt, run.onLine(),
            run.onExit());
        QVERIFY(run.waitForExit(10));
    }
    {
        // Never started: nothing to give back.
        StreamingProcess unused;
    }
    // The process's thread ends right after onExit, the exit waiter before it.
    QTRY_VERIFY_WITH_TIMEOUT(countOf(QStringLiteral("/proc/self/task")) <= threads, 3000);
    QVERIFY(countOf(QStringLiteral("/proc/self/fd")) <= descriptors);
}

void TestStreamingProcess::takeLines_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<bool>("flush");
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QByteArray>("rest");

    // Line ends, trimming and the last line are proven through a real process by lines().
    QTest::newRow("an unfinished line waits")
        << QByteArray("a\nhalf") << false << QStringList{"a"} << QByteArray("half");
    QTest::newRow("flushing trims newline-like blanks too")
        << QByteArray("tail\v\f") << true << QStringList{"tail"} << QByteArray();
    QTest::newRow("half a character waits for the rest")
        << QByteArray("ok\ncaf\xC3") << false << QStringList{"ok"} << QByteArray("caf\xC3");
    QTest::newRow("an escape split across reads waits whole")
        << QByteArray("ok\n\x1B[1;3") << false << QStringList{"ok"} << QByteArray("\x1B[1;3");
}

void TestStreamingProcess::takeLines()
{
    QFETCH(QByteArray, input);
    QFETCH(bool, flush);
    QTEST(StreamingProcess::takeLines(input, flush), "lines");
    QTEST(input, "rest");
}

QTEST_GUILESS_MAIN(TestStreamingProcess)
#include "TestStreamingProcess.moc"
