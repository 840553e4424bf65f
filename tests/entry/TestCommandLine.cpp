#include "entry/CommandLine.h"

#include <QTest>

using Work = CommandLine::Work;

class TestCommandLine : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void scan_data();
    void scan();
    void feedSeconds_data();
    void feedSeconds();
};

namespace {

QStringList line(const QString& text)
{
    QStringList arguments{QStringLiteral("/opt/Tidewatch/bin/Tidewatch")};
    arguments << text.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    return arguments;
}

CommandLine expect(Work work, std::optional<QString> value = std::nullopt)
{
    CommandLine expected;
    expected.work = work;
    expected.value = std::move(value);
    return expected;
}

} // namespace

void TestCommandLine::scan_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<CommandLine>("expected");

    QTest::newRow("nothing starts the application") << QString() << expect(Work::Normal);
    QTest::newRow("unknown arguments are ignored") << "-psn_0_123 --verbose x" << expect(Work::Normal);
    QTest::newRow("--selftest beats a --run-step ahead of it")
        << "--run-step service --selftest" << expect(Work::SelfTest);
    QTest::newRow("--run-step last is the usage line") << "--run-step" << expect(Work::RunStepUsage);
    QTest::newRow("--run-step beats a switch later in the table")
        << "--render-popover /tmp/p --run-step service" << expect(Work::RunStep, "service");
    QTest::newRow("only the first occurrence of a switch counts")
        << "--run-step service --run-step backpack" << expect(Work::RunStep, "service");
    QTest::newRow("no = forms") << "--run-step=service" << expect(Work::Normal);
    QTest::newRow("--render-iconset last starts normally") << "--render-iconset" << expect(Work::Normal);
    QTest::newRow("a skipped switch lets the scan go on")
        << "--render-iconset --snapshots" << expect(Work::RenderIconset, "--snapshots");
    QTest::newRow("--selftest-node-download missing its folder falls to the next switch")
        << "--selftest-stream --selftest-node-download" << expect(Work::Stream);

    CommandLine sdk = expect(Work::SdkFetch);
    sdk.nodePath = QStringLiteral("/x");
    QTest::newRow("--selftest-sdk-fetch --node /x has no destination") << "--selftest-sdk-fetch --node /x" << sdk;
    CommandLine sdkFolder = expect(Work::SdkFetch, "/tmp/sdk");
    sdkFolder.nodePath = QStringLiteral("/usr/bin/node");
    QTest::newRow("--node is found anywhere on the line")
        << "--node /usr/bin/node --selftest-sdk-fetch /tmp/sdk" << sdkFolder;

    CommandLine feed = expect(Work::FeedSelfTest);
    feed.open = true;
    QTest::newRow("--feed-selftest --open has 0 seconds and open") << "--feed-selftest --open" << feed;
    CommandLine feedTimed = expect(Work::FeedSelfTest);
    feedTimed.seconds = 12.5;
    feedTimed.signIn = true;
    QTest::newRow("--feed-selftest with seconds and --sign-in before it")
        << "--sign-in --feed-selftest 12.5" << feedTimed;

    CommandLine popover;
    popover.popoverSelfTestReport = QStringLiteral("/tmp/report.txt");
    QTest::newRow("--popover-selftest stores its file and starts normally")
        << "--popover-selftest /tmp/report.txt" << popover;
    CommandLine popoverThenRender = expect(Work::RenderPopover, "/tmp/out");
    popoverThenRender.popoverSelfTestReport = QStringLiteral("/tmp/r");
    QTest::newRow("--popover-selftest doesn't end the scan")
        << "--popover-selftest /tmp/r --render-popover /tmp/out" << popoverThenRender;

    CommandLine live = expect(Work::RenderPopover, "/tmp/out");
    live.live = true;
    QTest::newRow("--live is found anywhere") << "--live --render-popover /tmp/out" << live;
    CommandLine pairPage = live;
    pairPage.page = QStringLiteral("pair");
    QTest::newRow("--page names the page a live render draws")
        << "--render-popover /tmp/out --live --page pair" << pairPage;

    CommandLine moved;
    moved.moved = true;
    QTest::newRow("--moved is kept for the start") << "--moved" << moved;
}

void TestCommandLine::scan()
{
    QFETCH(QString, arguments);
    QFETCH(CommandLine, expected);
    const CommandLine actual = CommandLine::scan(line(arguments));
    QCOMPARE(int(actual.work), int(expected.work));
    QCOMPARE(actual.value, expected.value);
    QVERIFY(actual == expected);
}

void TestCommandLine::feedSeconds_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<double>("seconds");

    QTest::newRow("a leading plus") << "+3" << 3.0;
    QTest::newRow("an exponent") << "1e1" << 10.0;
    QTest::newRow("a decimal comma is no number") << "2,5" << 0.0;
    QTest::newRow("a leading blank is no number") << " 5" << 0.0;
    QTest::newRow("an empty value") << "" << 0.0;
}

void TestCommandLine::feedSeconds()
{
    QFETCH(QString, value);
    const CommandLine scanned
        = CommandLine::scan({QStringLiteral("Tidewatch"), QStringLiteral("--feed-selftest"), value});
    QCOMPARE(scanned.work, Work::FeedSelfTest);
    QTEST(scanned.seconds, "seconds");
}

QTEST_GUILESS_MAIN(TestCommandLine)
#include "TestCommandLine.moc"
