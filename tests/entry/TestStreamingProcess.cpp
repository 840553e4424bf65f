#include "entry/StreamingProcess.h"

#include <QElapsedTimer>
#include <QTest>

#include <condition_variable>
#include <mutex>

namespace {

/// Lines and the end of one run, collected from the process's thread.
struct Run {
    std::mutex lock;
    std::condition_variable changed;
    QStringList lines;
    QList<int> exits;
    bool lineAfterExit = false;

    bool waitForExit(int seconds)
    {
        std::unique_lock guard(lock);
        return changed.wait_for(guard, std::chrono::seconds(seconds), [this] { return !exits.isEmpty(); });
    }
};

void start(StreamingProcess& process, Run& run, const QString& executable, const QStringList& arguments)
{
    process.start(
        executable, arguments, std::nullopt,
        [&run](const QString& line) {
            std::lock_guard guard(run.lock);
            if (!run.exits.isEmpty())
                run.lineAfterExit = true;
            run.lines << line;
        },
        [&run](int status) {
            std::lock_guard guard(run.lock);
            run.exits << status;
            run.changed.notify_all();
        });
}

void startBash(StreamingProcess& process, Run& run, const QString& line)
{
    start(process, run, QStringLiteral("/bin/bash"), {QStringLiteral("-c"), line});
}

} // namespace

class TestStreamingProcess : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lingeringChildEndsAfterTheGrace();
    void lines_data();
    void lines();
    void launchFailure();
    void characterSplitAcrossWritesArrivesWhole();
    void destroyedEarlyFallsSilent();
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
        << "printf '\\033[2K\\n   \\n\\t\\nreal\\n\\033]0;t\\007\\n'" << QStringList{"real"} << 0;
    QTest::newRow("error and output are one stream in order")
        << "echo first; echo second >&2; echo third; exit 2" << QStringList{"first", "second", "third"} << 2;
    QTest::newRow("spaces and tabs are trimmed, inner ones kept")
        << "printf ' \\t a  b \\t\\n'" << QStringList{"a  b"} << 0;
    QTest::newRow("invalid bytes are repaired in their line")
        << "printf 'ok\\nbad\\377line\\n'" << QStringList{"ok", QStringLiteral("bad\uFFFDline")} << 0;
    QTest::newRow("no output at all") << "exit 0" << QStringList{} << 0;
}

void TestStreamingProcess::lines()
{
    QFETCH(QString, line);
    QFETCH(QStringList, lines);
    QFETCH(int, status);
    Run run;
    StreamingProcess process;
    startBash(process, run, line);
    QVERIFY(run.waitForExit(15));
    std::lock_guard guard(run.lock);
    QCOMPARE(run.lines, lines);
    QCOMPARE(run.exits, QList<int>{status});
    QVERIFY(!run.lineAfterExit);
}

void TestStreamingProcess::launchFailure()
{
    Run run;
    StreamingProcess process;
    start(process, run, QStringLiteral("/nonexistent/installer"), {});
    QVERIFY(run.waitForExit(5));
    std::lock_guard guard(run.lock);
    QCOMPARE(run.exits, QList<int>{-1});
    QCOMPARE(run.lines.size(), 1);
    QVERIFY(run.lines.first().startsWith(QStringLiteral("Couldn't start: ")));
    QVERIFY(run.lines.first().size() > 16);
}

void TestStreamingProcess::characterSplitAcrossWritesArrivesWhole()
{
    // "é" is two bytes; the pause makes them arrive in two reads.
    Run run;
    StreamingProcess process;
    startBash(process, run, QStringLiteral("printf 'caf\\303'; sleep 0.3; printf '\\251 ok\\n'"));
    QVERIFY(run.waitForExit(10));
    std::lock_guard guard(run.lock);
    QCOMPARE(run.lines, QStringList{QStringLiteral("café ok")});
}

void TestStreamingProcess::destroyedEarlyFallsSilent()
{
    Run run;
    {
        StreamingProcess process;
        startBash(process, run, QStringLiteral("echo early; sleep 1; echo late"));
        QTRY_VERIFY_WITH_TIMEOUT(([&run] {
                                     std::lock_guard guard(run.lock);
                                     return !run.lines.isEmpty();
                                 }()),
                                 5000);
    }
    // Nothing arrives after the object is gone, not even the end.
    QTest::qWait(2000);
    std::lock_guard guard(run.lock);
    QCOMPARE(run.lines, QStringList{QStringLiteral("early")});
    QVERIFY(run.exits.isEmpty());
}

void TestStreamingProcess::takeLines_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<bool>("flush");
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QByteArray>("rest");

    QTest::newRow("an unfinished line waits") << QByteArray("a\nhalf") << false << QStringList{"a"} << QByteArray("half");
    QTest::newRow("flushing delivers the unfinished line") << QByteArray("a\nhalf  \n") << true << QStringList{"a", "half"}
                                                           << QByteArray();
    QTest::newRow("a lone CR ends a line") << QByteArray("x\ry") << false << QStringList{"x"} << QByteArray("y");
    QTest::newRow("half a character waits for the rest")
        << QByteArray("ok\ncaf\xC3") << false << QStringList{"ok"} << QByteArray("caf\xC3");
}

void TestStreamingProcess::takeLines()
{
    QFETCH(QByteArray, input);
    QFETCH(bool, flush);
    QFETCH(QStringList, lines);
    QFETCH(QByteArray, rest);
    QCOMPARE(StreamingProcess::takeLines(input, flush), lines);
    QCOMPARE(input, rest);
}

QTEST_GUILESS_MAIN(TestStreamingProcess)
#include "TestStreamingProcess.moc"
