#include "setup/ClaudeSDK.h"

#include "Fixture.h"
#include "ScratchFolder.h"

#include <QDir>
#include <QFile>
#include <QTest>

using namespace ClaudeSDK;

namespace {

/// A daemon folder, a Node.js and an npm that installs a package the way
/// npm would, from small scripts; what npm was asked is written down.
class Machine
{
public:
    Machine()
    {
        m_scratch.write(QStringLiteral("daemon/package-lock.json"), "{}");
        m_node = m_scratch.write(QStringLiteral("node/bin/node"), "#!/bin/sh\nexec /bin/sh \"$@\"\n", 0755);
    }

    QString daemon() const { return m_scratch.path() + QStringLiteral("/daemon"); }
    QString node() const { return m_node; }
    QString calls() const { return m_scratch.path() + QStringLiteral("/npm-calls"); }
    void pin(const QByteArray& version) const { m_scratch.write(QStringLiteral("daemon/sdk-version"), version + '\n'); }
    void package(const QByteArray& manifest, const QStringList& files = {QStringLiteral("index.js")}) const
    {
        m_scratch.write(QStringLiteral("daemon/node_modules/@anthropic-ai/claude-agent-sdk/package.json"), manifest);
        for (const QString& file : files)
            m_scratch.write(QStringLiteral("daemon/node_modules/@anthropic-ai/claude-agent-sdk/") + file, "");
    }
    /// An npm that installs `version` (or nothing, or fails with `output`).
    void npm(const QString& version, int status = 0, const QByteArray& output = {}) const
    {
        const QString folder = QStringLiteral("node_modules/@anthropic-ai/claude-agent-sdk");
        QString script
            = QStringLiteral("#!/bin/sh\necho \"$PWD|$*|$npm_config_update_notifier\" >> '%1'\n").arg(calls());
        if (!version.isEmpty()) {
            script += QStringLiteral(
                "mkdir -p %1 && echo '{\"name\":\"@anthropic-ai/claude-agent-sdk\",\"version\":\"%2\","
                "\"exports\":{\".\":{\"import\":\"./sdk.mjs\"}}}' > %1/package.json && touch %1/sdk.mjs\n")
                          .arg(folder, version);
        }
        m_scratch.write(QStringLiteral("npm-output"), output);
        script
            += QStringLiteral("cat '%1'\nexit %2\n").arg(m_scratch.path() + QStringLiteral("/npm-output")).arg(status);
        m_scratch.write(QStringLiteral("node/bin/npm"), script.toUtf8(), 0755);
    }
    Environment environment() const
    {
        return Environment(
            {{QStringLiteral("TIDEWATCH_SUPPORT"), m_scratch.path() + QStringLiteral("/support")}}, m_scratch.path());
    }
    QStringList npmCalls() const
    {
        QFile file(calls());
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts)
                                              : QStringList();
    }

private:
    ScratchFolder m_scratch;
    QString m_node;
};

} // namespace

class TestClaudeSDK : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void installedVersion_data();
    void installedVersion();
    void findsNpm();
    void fetchesWithTheFixedArguments();
    void wreckIsRemovedAndPinIsChecked();
    void currentNeedsNoNpm();
    void refusesWithoutLockOrNpm();
    void carriesOver();
};

void TestClaudeSDK::installedVersion_data()
{
    QTest::addColumn<QByteArray>("manifest");
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QString>("version");

    QTest::newRow("main") << QByteArray(
        R"({"name":"@anthropic-ai/claude-agent-sdk","version":"0.3.1","main":"sdk.js"})")
                          << QStringList{"sdk.js"} << "0.3.1";
    QTest::newRow("exports as a string wins over main")
        << QByteArray(R"({"name":"@anthropic-ai/claude-agent-sdk","version":"1","exports":"./a.mjs","main":"b.js"})")
        << QStringList{"b.js"} << "";
    QTest::newRow("exports' import condition") << QByteArray(
        R"({"name":"@anthropic-ai/claude-agent-sdk","version":"2","exports":{".":{"types":"x.d.ts","import":"./e.mjs"}}})")
                                               << QStringList{"e.mjs"} << "2";
    QTest::newRow("no entry named: index.js")
        << QByteArray(R"({"name":"@anthropic-ai/claude-agent-sdk","version":"3"})") << QStringList{"index.js"} << "3";
    QTest::newRow("the entry file missing is a wreck")
        << QByteArray(R"({"name":"@anthropic-ai/claude-agent-sdk","version":"4"})") << QStringList{} << "";
    QTest::newRow("another package") << QByteArray(R"({"name":"claude-agent-sdk","version":"5"})")
                                     << QStringList{"index.js"} << "";
    QTest::newRow("a version that isn't text")
        << QByteArray(R"({"name":"@anthropic-ai/claude-agent-sdk","version":6})") << QStringList{"index.js"} << "";
}

void TestClaudeSDK::installedVersion()
{
    QFETCH(QByteArray, manifest);
    QFETCH(QStringList, files);
    QFETCH(QString, version);
    Machine machine;
    machine.package(manifest, files);
    QCOMPARE(ClaudeSDK::installedVersion(machine.daemon()).value_or(QString()), version);
}

void TestClaudeSDK::findsNpm()
{
    ScratchFolder scratch;
    const QString node = scratch.write(QStringLiteral("a/bin/node"), "", 0755);
    QVERIFY(!findNpm(node));
    const QString cli = scratch.write(QStringLiteral("a/lib/node_modules/npm/bin/npm-cli.js"), "");
    QCOMPARE(findNpm(node)->program, node);
    QCOMPARE(findNpm(node)->prefix, QStringList{cli});
    // Homebrew's npm is a link to the script: it runs on this Node.js, not on its first line's.
    QFile::link(
        QStringLiteral("../lib/node_modules/npm/bin/npm-cli.js"), scratch.path() + QStringLiteral("/a/bin/npm"));
    QCOMPARE(findNpm(node)->program, node);
    QCOMPARE(findNpm(node)->prefix, QStringList{QFileInfo(cli).canonicalFilePath()});
    const QString plain = scratch.write(QStringLiteral("b/bin/npm"), "#!/bin/sh\n", 0755);
    QCOMPARE(findNpm(scratch.path() + QStringLiteral("/b/bin/node"))->program, plain);
}

void TestClaudeSDK::fetchesWithTheFixedArguments()
{
    Machine machine;
    machine.pin("0.3.330");
    machine.npm(QStringLiteral("0.3.330"));
    const Outcome outcome = fetch(machine.environment(), machine.daemon(), machine.node());
    QCOMPARE(outcome.ready, std::optional<QString>("0.3.330"));
    const QStringList calls = machine.npmCalls();
    QCOMPARE(calls.size(), 1);
    const QStringList parts = calls.first().split('|');
    QCOMPARE(parts.at(0), machine.daemon());
    QCOMPARE(parts.at(1), arguments(machine.environment().supportFolder() + "/npm-cache").join(' '));
    QCOMPARE(parts.at(2), QStringLiteral("false"));
    QVERIFY(parts.at(1).contains("--ignore-scripts"));
    QCOMPARE(QFileInfo(machine.environment().supportFolder() + "/npm-cache").permissions() & QFile::ReadOther,
        QFile::Permissions());
}

void TestClaudeSDK::wreckIsRemovedAndPinIsChecked()
{
    Machine machine;
    machine.pin("1.2.0");
    machine.package(R"({"name":"@anthropic-ai/claude-agent-sdk","version":"1.1.0"})", {});
    // npm that does nothing: the wreck is gone all the same, and the pin isn't met.
    machine.npm(QString());
    const Outcome outcome = ensure(machine.environment(), machine.daemon(), machine.node());
    QVERIFY(!outcome.ready);
    QCOMPARE(
        outcome.failure, QStringLiteral("npm finished, but Claude Code’s SDK 1.2.0 isn’t in the service’s folder."));
    QVERIFY(!QFileInfo::exists(machine.daemon() + "/node_modules/@anthropic-ai/claude-agent-sdk"));
    QCOMPARE(lastProblem(), std::optional<QString>(outcome.failure));

    machine.npm(QStringLiteral("1.2.0"));
    QCOMPARE(ensure(machine.environment(), machine.daemon(), machine.node()).ready, std::optional<QString>("1.2.0"));
    QVERIFY(!lastProblem());
}

void TestClaudeSDK::currentNeedsNoNpm()
{
    Machine machine;
    machine.package(R"({"name":"@anthropic-ai/claude-agent-sdk","version":"9.9.9"})");
    machine.npm(QStringLiteral("1.0.0"));
    QVERIFY(state(machine.daemon()).isCurrent());
    QCOMPARE(ensure(machine.environment(), machine.daemon(), machine.node()).ready, std::optional<QString>("9.9.9"));
    QVERIFY(machine.npmCalls().isEmpty());
}

void TestClaudeSDK::refusesWithoutLockOrNpm()
{
    Machine machine;
    const Outcome noNpm = fetch(machine.environment(), machine.daemon(), machine.node());
    QVERIFY(noNpm.failure.startsWith(
        QStringLiteral("There’s no npm next to the Node.js the service runs on (~/node/bin/node)")));
    QFile::remove(machine.daemon() + QStringLiteral("/package-lock.json"));
    QCOMPARE(fetch(machine.environment(), machine.daemon(), machine.node()).failure,
        QStringLiteral("This copy of the service has no package lock to fetch Claude Code’s SDK with. Rebuild the "
                       "app with mac/build.sh."));
}

void TestClaudeSDK::carriesOver()
{
    Machine old;
    old.package(R"({"name":"@anthropic-ai/claude-agent-sdk","version":"0.3.1","main":"lib/sdk.js"})", {"lib/sdk.js"});
    ScratchFolder fresh;
    carryOver(old.daemon(), fresh.path());
    QCOMPARE(ClaudeSDK::installedVersion(fresh.path()), std::optional<QString>("0.3.1"));
}

QTEST_GUILESS_MAIN(TestClaudeSDK)
#include "TestClaudeSDK.moc"
