#include "Golden.h"
#include "Launch.h"
#include "LiveModel.h"
#include "RealPlaces.h"

#include "model/DismissedNotices.h"
#include "setup/OutsideTools.h"
#include "surface/PopoverModel.h"

#include <QGuiApplication>
#include <QJsonObject>
#include <QScopeGuard>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

const QString kFakes = QStringLiteral(TIDEWATCH_SOURCE_DIR) + u"/tests/fakes"_s;
const QString kGolden = u"popover-usage.txt"_s;

/// The usage section's lines of a twin: from its heading to what follows it.
QString usagePart(const QStringList& twin)
{
    const qsizetype from = twin.indexOf(u"USAGE"_s);
    if (from < 0)
        return u"no usage section in:\n"_s + twin.join(u'\n');
    qsizetype to = from + 1;
    while (to < twin.size() && twin.at(to) != u"STAY AWAKE"_s && twin.at(to) != u"Pair another phone"_s)
        ++to;
    return twin.mid(from, to - from).join(u" / "_s);
}

/// Seeds the /qa/snapshot parts of a case, the fake codex's place put in.
void seedParts(const LiveModel& live, QString parts)
{
    live.seed("[[\"/qa/snapshot\", " + parts.replace(u"<fake codex>"_s, kFakes + u"/codex.sh"_s).toUtf8() + "]]");
}

} // namespace

/// The usage section against the real service, word for word in the text
/// twin, and the Codex card's sign-in opening a terminal that runs codex login.
class TestPopoverAccount : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void eachStateReads_data();
    void eachStateReads();
    void signInOpensATerminalRunningCodexLogin();
};

void TestPopoverAccount::eachStateReads_data()
{
    QTest::addColumn<bool>("codexAlone");
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("expected");
    for (const Golden::Row& row : Golden::read(kGolden)) {
        QTest::newRow(qPrintable(row.section + u": "_s + row.name))
            << (row.section == u"codex alone"_s) << row.input << row.expected;
    }
}

void TestPopoverAccount::eachStateReads()
{
    QFETCH(bool, codexAlone);
    QFETCH(QString, input);
    QFETCH(QString, expected);
    LiveModel live;
    QVERIFY(live.ok());
    seedParts(live, input);
    if (!codexAlone) {
        // The built program's own render, as a person sees it.
        QCOMPARE(usagePart(live.liveRender()), expected);
        return;
    }
    live.setClaudeHere(false);
    QVERIFY(live.startModel());
    QCOMPARE(usagePart(live.twin()), expected);
}

void TestPopoverAccount::signInOpensATerminalRunningCodexLogin()
{
    LiveModel live;
    QVERIFY(live.ok());
    seedParts(live, uR"({"claude":{"available":false},"codex":{"available":true,"enabled":true,"path":"<fake codex>",
             "account":{"signedIn":false}}})"_s);
    live.setClaudeHere(false);
    QVERIFY(live.startModel());
    AppModel& model = live.model();

    const QString record = live.scratch.file(u"window"_s);
    const QString calls = live.scratch.file(u"codex-calls"_s);
    qputenv("FAKE_TERMINAL_RECORD", record.toUtf8());
    qputenv("FAKE_CODEX_RECORD", calls.toUtf8());
    OutsideTools tools = OutsideTools::current(live.service.environment());
    tools.system.terminalKind = platform::TerminalKind::Emulator;
    tools.system.terminal = kFakes + u"/terminal.sh"_s;
    OutsideTools::replace(tools);
    const auto restore = qScopeGuard([] { OutsideTools::replace(std::nullopt); });

    DismissedNotices dismissed;
    PopoverModel popover(model, dismissed, Clock::system());
    const QVariantMap card = popover.page().value(u"usage"_s).toMap().value(u"codexCard"_s).toMap();
    QCOMPARE(card.value(u"title"_s).toString(), u"Codex is signed out"_s);
    QCOMPARE(card.value(u"action"_s).toString(), u"Sign in"_s);

    popover.signInCodex();
    QVERIFY(model.codexBusy());
    QTRY_VERIFY_WITH_TIMEOUT(model.codexSignInOpened(), 10000);
    QVERIFY2(!model.codexError(), qPrintable(model.codexError().value_or(QString())));
    QVERIFY(!model.codexBusy());
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(record + u".done"_s), 20000);
    const QString script = live.service.environment().supportFolder() + u"/terminal/codex-login.sh"_s;
    QCOMPARE(textLines(record + u".args"_s), (QStringList{u"-e"_s, script}));
    QVERIFY(textLines(record + u".script"_s).contains(u"'"_s + kFakes + u"/codex.sh' login"_s));
    QCOMPARE(textLines(calls), QStringList{u"login"_s});
    QCOMPARE(
        textLines(record + u".out"_s).value(0), u"Tidewatch: sign in to Codex below. Your browser opens for it."_s);

    // With the terminal opened, opening the panel and coming back to the app each ask for a fresh look at Codex.
    const QList<std::function<void()>> looks{
        [&] { model.setPopoverVisible(true); }, [&] { model.applicationBecameActive(); }};
    for (const std::function<void()>& look : looks) {
        live.service.qa(
            "POST", u"/qa/faults"_s, QJsonObject{{u"route"_s, u"POST /v1/codex/refresh"_s}, {u"times"_s, 1}});
        look();
        QTRY_VERIFY_WITH_TIMEOUT(live.service.faultsSpent(), 10000);
    }

    // Waved away, the card stays away for as long as Codex is signed out.
    popover.dismissCodexCard();
    popover.refresh();
    QVERIFY(!popover.page().value(u"usage"_s).toMap().contains(u"codexCard"_s));
    QCOMPARE(popover.page().value(u"undo"_s).toMap().value(u"text"_s).toString(), u"Dismissed: Codex is signed out"_s);
}

TIDEWATCH_E2E_MAIN_WITH(QGuiApplication, TestPopoverAccount)
#include "TestPopoverAccount.moc"
