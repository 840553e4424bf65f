#include "setup/Detection.h"

#include "ScratchFolder.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

/// A scratch machine: a home, a support folder, system folders and a login
/// shell of its own, with tools that are small scripts printing what the real
/// ones print.
class Machine
{
public:
    Machine()
    {
        QDir().mkpath(home());
        QDir().mkpath(system());
    }

    QString home() const { return m_scratch.path() + QStringLiteral("/home"); }
    QString system() const { return m_scratch.path() + QStringLiteral("/usr/bin"); }
    QString support() const { return m_scratch.path() + QStringLiteral("/support"); }

    /// An executable that prints `output` to --version and exits with `status`.
    QString tool(const QString& path, const QString& output, int status = 0) const
    {
        const QString script = QStringLiteral("#!/bin/sh\necho '%1'\nexit %2\n").arg(output).arg(status);
        return m_scratch.write(path, script.toUtf8(), 0755);
    }
    QString node(const QString& path, const QString& version) const { return tool(path, version); }
    QString nvmNode(const QString& version) const
    {
        return node(QStringLiteral("home/.nvm/versions/node/") + version + QStringLiteral("/bin/node"), version);
    }
    void note(const QByteArray& recorded) const { m_scratch.write(QStringLiteral("support/node-path"), recorded); }
    void write(const QString& path, const QByteArray& contents) const { m_scratch.write(path, contents); }
    /// A login shell that greets, prints what `command -v` would, and says goodbye.
    void loginShellPrints(const QString& lines) const
    {
        m_scratch.write(
            QStringLiteral("bin/zsh"), QStringLiteral("#!/bin/sh\nprintf '%1'\n").arg(lines).toUtf8(), 0755);
    }

    Detection detection(const QHash<QString, QString>& extra = {}) const
    {
        Environment::Variables variables{{QStringLiteral("TIDEWATCH_SUPPORT"), support()},
            {QStringLiteral("TIDEWATCH_API_PORT"), QStringLiteral("47371")},
            {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QStringLiteral("47372")}};
        variables.insert(extra);
        Detection::Places places{
            m_scratch.path() + QStringLiteral("/bin/zsh"), {{system(), QStringLiteral("your system’s packages")}}, {}};
        return Detection(Environment(variables, home()), places);
    }

private:
    ScratchFolder m_scratch;
};

QStringList sources(const QList<NodeCandidate>& candidates)
{
    QStringList out;
    for (const NodeCandidate& candidate : candidates)
        out << candidate.source + QLatin1Char(' ') + candidate.version.value_or(QStringLiteral("?"));
    return out;
}

} // namespace

class TestDetection : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void stableWinsButVersionedIsFirstInOrder();
    void serviceKeepsItsWorkingNodeAndMovesOffAGoneOne();
    void recordedPath_data();
    void recordedPath();
    void recordingIsAtomicAndRefusedWhenNotIsolated();
    void claudeAndCodex();
    void theRealClaudeCode();
    void signIn_data();
    void signIn();
};

void TestDetection::stableWinsButVersionedIsFirstInOrder()
{
    Machine machine;
    machine.node(QStringLiteral("support/node/v22.20.0/bin/node"), QStringLiteral("v22.20.0"));
    machine.node(QStringLiteral("support/node/v20.1.0/bin/node"), QStringLiteral("v20.1.0"));
    machine.node(QStringLiteral("usr/bin/node"), QStringLiteral("v22.19.0"));
    machine.note(machine.home().toUtf8() + "/.nvm/versions/node/v25.0.0/bin/node\n");
    machine.nvmNode(QStringLiteral("v25.0.0"));
    const Detection detection = machine.detection();
    QCOMPARE(sources(detection.nodeCandidates()),
        (QStringList{"downloaded by Tidewatch v22.20.0", "downloaded by Tidewatch v20.1.0",
            "your system’s packages v22.19.0", "nvm v25.0.0"}));
    const ServiceNodeChoice choice = detection.chooseServiceNode(std::nullopt);
    QCOMPARE(choice.stable->version, std::optional<QString>("v22.20.0"));
    QCOMPARE(choice.versioned, choice.stable);
    QVERIFY(detection.isStableNode(machine.system() + "/node"));
    QVERIFY(!detection.isStableNode(machine.home() + "/.nvm/versions/node/v25.0.0/bin/node"));
    QVERIFY(!detection.isStableNode(machine.support() + "/nodes/evil"));
}

void TestDetection::serviceKeepsItsWorkingNodeAndMovesOffAGoneOne()
{
    Machine machine;
    const QString system = machine.node(QStringLiteral("usr/bin/node"), QStringLiteral("v22.19.0"));
    const QString nvm = machine.nvmNode(QStringLiteral("v23.1.0"));
    const ServiceNodeChoice kept = machine.detection().chooseServiceNode(nvm);
    QCOMPARE(kept.stable->path, nvm);
    QCOMPARE(kept.stable->source, QStringLiteral("the service’s (nvm)"));
    QVERIFY(!kept.versioned);

    const ServiceNodeChoice moved = machine.detection().chooseServiceNode(machine.home() + "/gone/bin/node");
    QCOMPARE(moved.stable->path, system);
    QCOMPARE(moved.versioned->path, system);
}

void TestDetection::recordedPath_data()
{
    QTest::addColumn<QByteArray>("note");
    QTest::addColumn<QStringList>("expected");

    // The offline install proves nvm’s Node.js taken when nothing stable is there.
    QTest::newRow("no note: the newest nvm Node.js") << QByteArray("<none>") << QStringList{"nvm v25.9.0"};
    QTest::newRow("an empty note: nvm is not taken") << QByteArray("\n") << QStringList{};
    QTest::newRow("a recorded path outside nvm") << QByteArray("$HOME/opt/node\n") << QStringList{"recorded v23.0.0"};
    QTest::newRow("a recorded path that doesn't run stays out") << QByteArray("$HOME/nothing") << QStringList{};
}

void TestDetection::recordedPath()
{
    QFETCH(QByteArray, note);
    QFETCH(QStringList, expected);
    Machine machine;
    machine.nvmNode(QStringLiteral("v25.9.0"));
    machine.node(QStringLiteral("home/opt/node"), QStringLiteral("v23.0.0"));
    if (note != "<none>")
        machine.note(note.replace("$HOME", machine.home().toUtf8()));
    QCOMPARE(sources(machine.detection().nodeCandidates()), expected);
}

void TestDetection::recordingIsAtomicAndRefusedWhenNotIsolated()
{
    Machine machine;
    QVERIFY(!machine.detection().recordNodePath(QStringLiteral("/opt/node/bin/node")));
    QFile note(machine.support() + QStringLiteral("/node-path"));
    QVERIFY(note.open(QIODevice::ReadOnly));
    QCOMPARE(note.readAll(), QByteArray("/opt/node/bin/node\n"));
    QCOMPARE(QDir(machine.support()).entryList(QDir::Files), QStringList{"node-path"});

    const std::optional<QString> refused
        = machine.detection({{QStringLiteral("TIDEWATCH_LOCAL_PORT"), QStringLiteral("47371")}}).recordNodePath("/x");
    QVERIFY(refused);
    QVERIFY(refused->startsWith(QStringLiteral("This test copy needs ports of its own.")));
}

void TestDetection::claudeAndCodex()
{
    Machine machine;
    const QString viaShell = machine.tool(QStringLiteral("tools/claude"), QStringLiteral("2.1.3 (Claude Code)"));
    machine.tool(QStringLiteral("home/.volta/bin/claude"), QStringLiteral("9.9.9 (Claude Code)"));
    machine.loginShellPrints(QStringLiteral("Good morning\\n") + viaShell + QStringLiteral("\\n"));
    ClaudeDetection claude = machine.detection().detectClaude();
    QCOMPARE(claude.path, std::optional<QString>(viaShell));
    QCOMPARE(claude.foundBy, std::optional<QString>("your shell"));
    QCOMPARE(claude.version, std::optional<QString>("2.1.3"));

    // A last path-like line that isn't a program ends the shell's part; the folders decide.
    machine.loginShellPrints(viaShell + QStringLiteral("\\n/not/there/claude\\n"));
    claude = machine.detection().detectClaude();
    QCOMPARE(claude.foundBy, std::optional<QString>("Volta"));
    QCOMPARE(claude.version, std::optional<QString>("9.9.9"));

    // The user's own folder comes first of all, and a failing --version leaves it present.
    machine.tool(QStringLiteral("home/.local/bin/claude"), QStringLiteral("broken"), 1);
    claude = machine.detection().detectClaude();
    QCOMPARE(claude.foundBy, std::optional<QString>("~/.local/bin"));
    QVERIFY(!claude.version);

    machine.tool(QStringLiteral("home/.npm-global/bin/codex"), QStringLiteral("codex-cli 0.150.2"));
    const std::optional<CodexFound> codex = machine.detection().findCodex();
    QVERIFY(codex);
    QCOMPARE(codex->version, std::optional<QString>("0.150.2"));
}

void TestDetection::theRealClaudeCode()
{
    // The release the service's tests pin, as a person's install would hold it.
    const QString tools = QStringLiteral(TIDEWATCH_SOURCE_DIR "/daemon/test/tools");
    QFile manifest(tools + QStringLiteral("/package.json"));
    QVERIFY(manifest.open(QIODevice::ReadOnly));
    const QString pinned = QJsonDocument::fromJson(manifest.readAll())
                               .object()
                               .value(QStringLiteral("dependencies"))
                               .toObject()
                               .value(QStringLiteral("@anthropic-ai/claude-code"))
                               .toString();
    QVERIFY2(!pinned.isEmpty(), "daemon/test/tools pins no Claude Code");
    const QString program = tools + QStringLiteral("/node_modules/.bin/claude");
    QVERIFY2(QFileInfo(program).isExecutable(), "daemon/test/tools isn't installed");

    Machine machine;
    QVERIFY(QDir().mkpath(machine.home() + QStringLiteral("/.local/bin")));
    QVERIFY(QFile::link(program, machine.home() + QStringLiteral("/.local/bin/claude")));
    const ClaudeDetection claude = machine.detection().detectClaude();
    QCOMPARE(claude.foundBy, std::optional<QString>("~/.local/bin"));
    QCOMPARE(claude.version, std::optional<QString>(pinned));
}

void TestDetection::signIn_data()
{
    QTest::addColumn<QByteArray>("settings");
    QTest::addColumn<QByteArray>("account");
    QTest::addColumn<int>("signedIn");
    QTest::addColumn<QString>("email");

    const int unknown = -1;
    QTest::newRow("a key helper signs in") << QByteArray(R"({"apiKeyHelper":"~/bin/key"})") << QByteArray() << 1 << "";
    QTest::newRow("an empty key helper leaves it to the account file")
        << QByteArray(R"({"apiKeyHelper":""})") << QByteArray(R"({"oauthAccount":{"emailAddress":"me@x.io"}})") << 1
        << "me@x.io";
    QTest::newRow("no account file: signed out") << QByteArray() << QByteArray() << 0 << "";
    QTest::newRow("a malformed account file: unknown") << QByteArray() << QByteArray("{oops") << unknown << "";
    QTest::newRow("an account without an address still counts")
        << QByteArray() << QByteArray(R"({"oauthAccount":{}})") << 1 << "";
    QTest::newRow("an API key counts") << QByteArray() << QByteArray(R"({"primaryApiKey":"k"})") << 1 << "";
    QTest::newRow("neither: signed out") << QByteArray() << QByteArray(R"({"theme":"dark"})") << 0 << "";
}

void TestDetection::signIn()
{
    QFETCH(QByteArray, settings);
    QFETCH(QByteArray, account);
    QFETCH(int, signedIn);
    QFETCH(QString, email);
    Machine machine;
    if (!settings.isEmpty())
        machine.write(QStringLiteral("home/.claude/settings.json"), settings);
    if (!account.isEmpty())
        machine.write(QStringLiteral("home/.claude.json"), account);
    const auto [state, address] = machine.detection().readClaudeSignIn();
    QCOMPARE(state ? int(*state) : -1, signedIn);
    QCOMPARE(address.value_or(QString()), email);
}

QTEST_GUILESS_MAIN(TestDetection)
#include "TestDetection.moc"
