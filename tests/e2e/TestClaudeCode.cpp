#include "ClaudeScenario.h"
#include "LiveModel.h"
#include "PinnedClaude.h"
#include "RealPlaces.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>

namespace {

const QString kPrompt = QStringLiteral("make a file please");
/// Claude Code's own question in its terminal.
const QString kTerminalPrompt = QStringLiteral("Do you want to proceed\\?");
/// What the service tells Claude Code for a "deny".
const QString kDeclined = QStringLiteral("The person declined this from Tidewatch\\.");

QJsonObject command(const QString& name, const QJsonObject& more = {})
{
    QJsonObject command = more;
    command.insert(QStringLiteral("do"), name);
    return command;
}

QStringList decisions(const ServiceProcess& service)
{
    QStringList said;
    const QJsonArray kept
        = service.qa("GET", QStringLiteral("/qa/state")).toObject().value(QStringLiteral("decisions")).toArray();
    for (const QJsonValue& each : kept) {
        const QJsonObject decision = each.toObject();
        said << decision.value(QStringLiteral("decision")).toString() + QStringLiteral(" by ")
                + decision.value(QStringLiteral("by")).toString();
    }
    return said;
}

/// The terminal once the pattern shows on it, or as it stands when it didn't in time.
QJsonObject screenShowing(ClaudeScenario& claude, const QString& pattern)
{
    claude.send(command(QStringLiteral("waitFor"), {{QStringLiteral("pattern"), pattern}}));
    return claude.next(QStringLiteral("screen"), 30000);
}

} // namespace

/// Real Claude Code, connected by the service's own install in a scratch
/// home, asks to run a command; the question reaches the app's model, and
/// what the model answers (or doesn't) is what Claude Code does.
class TestClaudeCode : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void answerFromTheModel_data();
    void answerFromTheModel();
};

void TestClaudeCode::initTestCase()
{
    if (!QFileInfo::exists(PinnedClaude::kProgram))
        QSKIP(PinnedClaude::kMissing);
}

void TestClaudeCode::answerFromTheModel_data()
{
    QTest::addColumn<bool>("interactive");
    // "allow" or "deny" from the model; empty when nobody answers there.
    QTest::addColumn<QString>("answer");
    // Pressed in Claude Code's own prompt, with nobody answering in the model.
    QTest::addColumn<QString>("terminalKey");
    QTest::addColumn<bool>("made");
    // In print mode, the tool result Claude Code hands back to the model (as
    // its output shows it); interactive, the screen once the turn is over.
    QTest::addColumn<QString>("reported");
    QTest::addColumn<QString>("endState");
    // The decisions the service keeps, as "<decision> by <who>".
    QTest::addColumn<QStringList>("recorded");

    QTest::newRow("print: allow runs the command")
        << false << QStringLiteral("allow") << QString() << true
        << QStringLiteral("^\\(Bash completed with no output\\)$") << QStringLiteral("ended")
        << QStringList{QStringLiteral("allow by mac")};
    QTest::newRow("print: deny leaves nothing done and Claude Code reports it")
        << false << QStringLiteral("deny") << QString() << false << kDeclined << QStringLiteral("ended")
        << QStringList{QStringLiteral("deny by mac")};
    // There is no prompt to fall back on in -p: Claude Code refuses by itself, in its own words.
    QTest::newRow("print: no answer, Claude Code refuses by itself")
        << false << QString() << QString() << false << QStringLiteral("needs approval\\.") << QStringLiteral("ended")
        << QStringList{};
    QTest::newRow("interactive: allow closes the terminal's prompt and runs the command")
        << true << QStringLiteral("allow") << QString() << true << QStringLiteral("Done\\.") << QStringLiteral("idle")
        << QStringList{QStringLiteral("allow by mac")};
    QTest::newRow("interactive: deny closes the terminal's prompt and Claude Code reports it")
        << true << QStringLiteral("deny") << QString() << false << kDeclined << QStringLiteral("idle")
        << QStringList{QStringLiteral("deny by mac")};
    QTest::newRow("interactive: no answer, Claude Code's own prompt decides")
        << true << QString() << QStringLiteral("1") << true << QStringLiteral("Done\\.") << QStringLiteral("idle")
        << QStringList{QStringLiteral("allow by terminal")};
}

void TestClaudeCode::answerFromTheModel()
{
    QFETCH(bool, interactive);
    QFETCH(QString, answer);
    QFETCH(QString, terminalKey);
    QFETCH(bool, made);
    QFETCH(QString, reported);
    QFETCH(QString, endState);
    QFETCH(QStringList, recorded);

    LiveModel live(false);
    const ServiceProcess& service = live.service;
    ClaudeScenario claude(live.scratch.file(QStringLiteral("claude/")), service.supportFolder(),
        interactive ? ClaudeScenario::Mode::Interactive : ClaudeScenario::Mode::Print);
    QVERIFY2(claude.start(), qPrintable(claude.lastError()));
    if (!claude.missing().isEmpty())
        QSKIP(qPrintable(claude.missing()));
    const QString claudeDir = claude.ready().value(QStringLiteral("claudeDir")).toString();
    const QString project = claude.ready().value(QStringLiteral("project")).toString();
    const QString target = claude.ready().value(QStringLiteral("target")).toString();

    // Connected the way a person connects it: the service writes the scratch home's settings.
    live.service.setVariable(QStringLiteral("CLAUDE_CONFIG_DIR"), claudeDir);
    QVERIFY(live.restartService());
    const QJsonObject installed
        = service.qa("POST", QStringLiteral("/local/integration/install"), QJsonObject{}).toObject();
    QCOMPARE(installed.value(QStringLiteral("hooks")).toBool(), true);
    QCOMPARE(installed.value(QStringLiteral("statusLine")).toBool(), true);
    QFile settings(claudeDir + QStringLiteral("/settings.json"));
    QVERIFY(settings.open(QIODevice::ReadOnly));
    QVERIFY(settings.readAll().contains("tidewatch-hook.mjs"));

    QVERIFY(live.startModel());
    AppModel& model = live.model();

    claude.send(command(QStringLiteral("run"), {{QStringLiteral("prompt"), kPrompt}}));
    QVERIFY2(!claude.next(QStringLiteral("started"), 45000).isEmpty(), qPrintable(claude.diagnostics()));

    QTRY_COMPARE_WITH_TIMEOUT(model.waitingApprovals().size(), 1, 30000);
    const Approval asked = model.waitingApprovals().first();
    QCOMPARE(asked.toolName, QStringLiteral("Bash"));
    QCOMPARE(asked.summary, QStringLiteral("touch ") + target);
    // The session that asks is there, working in the project, waiting on the question.
    const std::optional<Session> session = live.session(asked.sessionId.value_or(QString()));
    QVERIFY(session);
    QCOMPARE(session->cwd, project);
    QCOMPARE(session->title, kPrompt);
    const auto state = [&] { return live.session(session->id).value_or(Session{}).state.value_or(QString()); };
    QTRY_COMPARE_WITH_TIMEOUT(state(), QStringLiteral("needs_you"), 5000);

    if (!answer.isEmpty()) {
        model.decide(asked, answer);
    } else if (interactive) {
        const QJsonObject screen = screenShowing(claude, kTerminalPrompt);
        QVERIFY2(screen.value(QStringLiteral("matched")).toBool(),
            qPrintable(screen.value(QStringLiteral("screen")).toString()));
        // Both ask at once; the model's card stands until the terminal answers.
        QCOMPARE(model.waitingApprovals().size(), 1);
        // The prompt takes keys a moment after it is drawn.
        QTest::qWait(1500);
        claude.send(command(QStringLiteral("keys"), {{QStringLiteral("keys"), QJsonArray{terminalKey}}}));
        QVERIFY(!claude.next(QStringLiteral("keys"), 10000).isEmpty());
    } else {
        // Nobody answers: the service gives the request up, the same step its
        // own timer takes when the wait runs out, and the hook lets Claude Code go.
        service.qa("DELETE", QStringLiteral("/qa/approvals/") + asked.id);
    }

    if (interactive) {
        const QJsonObject screen = screenShowing(claude, reported);
        const QString shown = screen.value(QStringLiteral("screen")).toString();
        QVERIFY2(screen.value(QStringLiteral("matched")).toBool(), qPrintable(shown));
        QVERIFY2(!QRegularExpression(kTerminalPrompt).match(shown).hasMatch(), qPrintable(shown));
    } else {
        const QJsonObject exit = claude.next(QStringLiteral("exit"), 45000);
        QVERIFY2(!exit.isEmpty(), qPrintable(claude.diagnostics()));
        QCOMPARE(exit.value(QStringLiteral("code")).toInt(-1), 0);
        QCOMPARE(exit.value(QStringLiteral("result")).toString(), QStringLiteral("Done."));
        const QJsonArray results = exit.value(QStringLiteral("toolResults")).toArray();
        QCOMPARE(results.size(), 1);
        const QJsonObject result = results.first().toObject();
        QCOMPARE(result.value(QStringLiteral("isError")).toBool(), !made);
        const QString text = result.value(QStringLiteral("text")).toString();
        QVERIFY2(QRegularExpression(reported).match(text).hasMatch(), qPrintable(text));
        QCOMPARE(exit.value(QStringLiteral("denials")).toInt(), made ? 0 : 1);
    }
    QTRY_COMPARE_WITH_TIMEOUT(QFileInfo::exists(target), made, 10000);
    QTRY_VERIFY_WITH_TIMEOUT(model.waitingApprovals().isEmpty(), 10000);
    QTRY_COMPARE_WITH_TIMEOUT(state(), endState, 30000);
    QCOMPARE(decisions(service), recorded);
}

TIDEWATCH_E2E_MAIN(TestClaudeCode)
#include "TestClaudeCode.moc"
