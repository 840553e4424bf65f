#include "link/Snapshot.h"

#include "Fixture.h"

#include <QJsonDocument>
#include <QTest>

#include <functional>

using namespace Qt::StringLiterals;

class TestWireRecords : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void wrongValueSinksOnlyItself_data();
    void wrongValueSinksOnlyItself();
    void busySample();
    void olderServiceSnapshot();
    void records_data();
    void records();
    void usageWindowNeedsAFinitePercent();
    void approvalInput();
};

namespace {

using Fixture::json;

// The value with the element at `path` ("sessions/3/blocked") set to `replacement`.
QJsonValue replaced(const QJsonValue& value, QStringView path, const QJsonValue& replacement)
{
    if (path.isEmpty())
        return replacement;
    const qsizetype slash = path.indexOf(u'/');
    const QStringView head = slash < 0 ? path : path.left(slash);
    const QStringView rest = slash < 0 ? QStringView() : path.mid(slash + 1);
    if (value.isArray()) {
        QJsonArray array = value.toArray();
        const int index = head.toInt();
        array[index] = replaced(array.at(index), rest, replacement);
        return array;
    }
    QJsonObject object = value.toObject();
    object[head] = replaced(object.value(head), rest, replacement);
    return object;
}

using Edit = std::function<void(Snapshot&)>;

struct Sinking {
    const char* path;
    Edit expected;
};

// Where a wrong value lands, and what that alone must change in the decoded sample: one
// row for each record and each way a field sinks (itself, its record, its list item).
const QList<Sinking>& sinkings()
{
    static const QList<Sinking> table{
        {"mac", [](Snapshot& s) { s.mac.reset(); }},
        {"mac/battery/percent", [](Snapshot& s) { s.mac->battery.reset(); }},
        {"mac/battery/minutesLeft", [](Snapshot& s) { s.mac->battery->minutesLeft.reset(); }},
        {"mac/awake/mode", [](Snapshot& s) { s.mac->awake.reset(); }},
        {"mac/awake/until", [](Snapshot& s) { s.mac->awake->until.reset(); }},
        {"usage/fiveHour", [](Snapshot& s) { s.usage->fiveHour.reset(); }},
        {"usage/sevenDay/pct", [](Snapshot& s) { s.usage->sevenDay.reset(); }},
        {"usage/models/0", [](Snapshot& s) { s.usage->models->removeFirst(); }},
        {"usage/rate/sevenDayLimitAt", [](Snapshot& s) { s.usage->rate->sevenDayLimitAt.reset(); }},
        {"usage/probe", [](Snapshot& s) { s.usage->probe.reset(); }},
        {"sessions/1", [](Snapshot& s) { s.sessions.items.removeAt(1); }},
        {"sessions/0/id", [](Snapshot& s) { s.sessions.items.removeAt(0); }},
        {"sessions/0/term/id", [](Snapshot& s) { s.sessions.items[0].term.reset(); }},
        {"sessions/0/pendingApprovalIds", [](Snapshot& s) { s.sessions.items[0].pendingApprovalIds.reset(); }},
        {"sessions/3/blocked/resume", [](Snapshot& s) { s.sessions.items[3].blocked->resume.reset(); }},
        {"sessions/3/automation", [](Snapshot& s) { s.sessions.items[3].automation.reset(); }},
        {"approvals/0", [](Snapshot& s) { s.approvals.items.removeAt(0); }},
        {"approvals/2/questions/1/options/2",
            [](Snapshot& s) { (*s.approvals.items[2].questions)[1].options->removeAt(2); }},
        {"account/since", [](Snapshot& s) { s.account->since.reset(); }},
        {"account/state", [](Snapshot& s) { s.account->state = u"unknown"_s; }},
        {"providers/1/kind", [](Snapshot& s) { s.providers.items.removeAt(1); }},
        {"providers/1/balance/freeLeft", [](Snapshot& s) { s.providers.items[1].balance->freeLeft.reset(); }},
        {"automations/list", [](Snapshot& s) { s.automations->list.clear(); }},
        {"automations/list/1/lastRun/ask", [](Snapshot& s) { s.automations->list[1].lastRun->ask.reset(); }},
        {"codex/usage/fiveHour", [](Snapshot& s) { s.codex->usage->fiveHour.reset(); }},
        {"codex/enabled", [](Snapshot& s) { s.codex->enabled = false; }},
        {"claude", [](Snapshot& s) { s.claude.reset(); }},
    };
    return table;
}

Snapshot decoded(const QJsonValue& value)
{
    std::optional<Snapshot> snapshot = Snapshot::fromJson(value);
    if (!snapshot)
        qFatal("snapshot didn't decode");
    return *snapshot;
}

QJsonObject g_busy;

} // namespace

void TestWireRecords::initTestCase()
{
    g_busy = QJsonDocument::fromJson(Fixture::sample(u"snapshot-busy.json"_s)).object();
    QVERIFY(!g_busy.isEmpty());
}

void TestWireRecords::wrongValueSinksOnlyItself_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QJsonValue>("replacement");
    QTest::addColumn<int>("row");

    // Every value of another JSON type than the sample holds at the path, null included.
    const QList<std::pair<const char*, QJsonValue>> values{
        {"a word", u"soon"_s},
        {"a number", 7},
        {"true", true},
        {"an array", QJsonArray{1, u"x"_s}},
        {"an object", QJsonObject{{u"future"_s, 1}}},
        {"null", QJsonValue::Null},
    };
    for (int row = 0; row < sinkings().size(); ++row) {
        const QString path = QString::fromLatin1(sinkings()[row].path);
        QJsonValue original = g_busy;
        for (const QString& step : path.split(u'/'))
            original = original.isArray() ? original.toArray().at(step.toInt()) : original.toObject().value(step);
        QVERIFY2(!original.isUndefined() && !original.isNull(), sinkings()[row].path);
        for (const auto& [name, value] : values) {
            if (value.type() == original.type())
                continue;
            const QByteArray rowName = QByteArray(sinkings()[row].path) + " as " + name;
            QTest::newRow(rowName.constData()) << path << value << row;
        }
    }
    QTest::newRow("account as a word is the unknown account") << u"account"_s << QJsonValue(u"something new"_s) << -1;
}

void TestWireRecords::wrongValueSinksOnlyItself()
{
    QFETCH(QString, path);
    QFETCH(QJsonValue, replacement);
    QFETCH(int, row);

    Snapshot expected = decoded(g_busy);
    if (row >= 0)
        sinkings()[row].expected(expected);
    else
        expected.account = Account();
    QCOMPARE(decoded(replaced(g_busy, path, replacement)), expected);
}

void TestWireRecords::busySample()
{
    // What the sinking rows compare against is the whole sample read, not some of it.
    const std::optional<Snapshot> snapshot = decodeDocument<Snapshot>(Fixture::sample(u"snapshot-busy.json"_s));
    QVERIFY(snapshot);
    QCOMPARE(snapshot->sessions.count, 5);
    QCOMPARE(snapshot->sessions.items.size(), 5);
    // Seconds and milliseconds sit side by side in the same list.
    QCOMPARE(snapshot->sessions.items[1].createdAt->msecsSinceEpoch, 1760007760250);
    QCOMPARE(snapshot->sessions.items[2].createdAt->msecsSinceEpoch, 1760019000000);
    QCOMPARE(snapshot->sessions.items[4].switchedFrom, snapshot->sessions.items[3].id);
    QCOMPARE(snapshot->approvals.items.size(), 4);
    QCOMPARE(snapshot->approvals.items[2].questions->at(1).options->size(), 4);
    QVERIFY(snapshot->approvals.items[3].input->isArray());
    QCOMPARE(snapshot->account->limit->window, u"five_hour"_s);
    QCOMPARE(snapshot->providers.items[1].balance->freeLeft, 43);
    QVERIFY(!snapshot->codex->usage->sevenDay->resetsAt);
    QCOMPARE(snapshot->automations->list[1].lastRun->ask->answers, QStringList({u"Open it"_s, u"Skip"_s}));
}

void TestWireRecords::olderServiceSnapshot()
{
    const std::optional<Snapshot> snapshot = decodeDocument<Snapshot>(
        R"({"mac":{"name":"M"},"usage":null,"sessions":[],"approvals":[],"projects":[],"providers":[]})");
    QVERIFY(snapshot);
    QCOMPARE(snapshot->mac->name, u"M"_s);
    QVERIFY(!snapshot->usage);
    QVERIFY(!snapshot->account);
    QVERIFY(!snapshot->automations);
    QVERIFY(!snapshot->codex);
    QCOMPARE(snapshot->sessions.count, 0);

    QCOMPARE(decodeDocument<Snapshot>("{}"), Snapshot());
    QVERIFY(!decodeDocument<Snapshot>("[]"));
}

void TestWireRecords::records_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QString>("read");

    auto row = [](const char* name, const char* kind, const char* value, const char* read) {
        QTest::newRow(name) << QString::fromLatin1(kind) << QByteArray(value) << QString::fromLatin1(read);
    };
    row("an account at a limit", "account",
        R"({"state":"limited","limit":{"window":"five_hour","label":"session limit","resetsAt":1760007200000,)"
        R"("autoResumeAt":null,"usingCredits":false}})",
        "limited, limit");
    row("an account state of another type is unknown", "account", R"({"state":7,"since":1760007200})",
        "unknown, since");
    row("an empty account state is unknown", "account", R"({"state":"","plan":"max"})", "unknown");
    row("a new account state word is kept", "account", R"({"state":"paused_by_admin"})", "paused_by_admin");
    row("null is no account", "account", "null", "none");
    row("odd battery fields drop out one by one", "battery",
        R"({"percent":18.6,"charging":"no","onAC":false,"minutesLeft":"soon"})",
        "18.6%, charging none, onAC false, minutes none");
    row("a battery above 100 is clamped", "battery", R"({"percent":140,"onAC":true,"minutesLeft":-1})",
        "100%, charging none, onAC true, minutes -1");
    row("a battery below 0 is clamped", "battery", R"({"percent":-3})", "0%, charging none, onAC none, minutes none");
    row("no percent is no battery", "battery", R"({"charging":true})", "none");
    row("only the awake mode is needed", "awake", R"({"mode":"working"})", "working, min 15");
    row("odd awake fields take their defaults", "awake",
        R"({"mode":"off","holding":"yes","minBattery":20.5,"until":"later"})", "off, min 15");
    row("a minimum battery written as a double", "awake", R"({"mode":"backpack","holding":true,"minBattery":30.0})",
        "backpack, min 30, holding");
    row("an unknown awake mode fails the record", "awake", R"({"mode":"sleepy","holding":true})", "none");
    // Codex sends 0 for a window that has no reset, in any of its spellings.
    for (const char* zero : {"0", "\"0\"", "\"1970-01-01T00:00:00Z\"", "0.0004"}) {
        const QByteArray name = QByteArray("a Codex reset at ") + zero + " is none";
        row(name.constData(), "codex", zero, "18%");
    }
    row("a Codex reset one second after the epoch is a reset", "codex", "1", "18%, resets");
    row("a real Codex reset", "codex", "1760031000", "18%, resets");
}

void TestWireRecords::records()
{
    QFETCH(QString, kind);
    QFETCH(QByteArray, value);

    auto flag = [](std::optional<bool> b) { return b ? (*b ? u"true"_s : u"false"_s) : u"none"_s; };
    QString read = u"none"_s;
    if (kind == u"account"_s) {
        if (const std::optional<Account> account = Account::fromJson(json(value)))
            read = account->state + (account->since ? u", since"_s : QString())
                + (account->limit ? u", limit"_s : QString());
    } else if (kind == u"battery"_s) {
        if (const std::optional<Battery> battery = Battery::fromJson(json(value)))
            read = u"%1%, charging %2, onAC %3, minutes %4"_s.arg(QString::number(battery->percent),
                flag(battery->charging), flag(battery->onAC),
                battery->minutesLeft ? QString::number(*battery->minutesLeft) : u"none"_s);
    } else if (kind == u"awake"_s) {
        if (const std::optional<Awake> awake = Awake::fromJson(json(value))) {
            QVERIFY(!awake->until);
            QCOMPARE(awakeModeFromName(awakeModeName(awake->mode)), awake->mode);
            read = awakeModeName(awake->mode) + u", min "_s + QString::number(awake->minBattery)
                + (awake->holding ? u", holding"_s : QString());
        }
    } else {
        const std::optional<Codex::Limits> limits = Codex::Limits::fromJson(json(
            R"({"fiveHour":{"pct":18,"resetsAt":)" + value + R"(},"sevenDay":{"pct":1,"resetsAt":)" + value + "}}"));
        QVERIFY(limits && limits->fiveHour && limits->sevenDay);
        QCOMPARE(limits->fiveHour->resetsAt.has_value(), limits->sevenDay->resetsAt.has_value());
        read = QString::number(limits->fiveHour->pct) + u'%' + (limits->fiveHour->resetsAt ? u", resets"_s : QString());
    }
    QTEST(read, "read");
}

void TestWireRecords::usageWindowNeedsAFinitePercent()
{
    // JSON text can't carry infinity; a document built in memory can.
    QVERIFY(!UsageWindow::fromJson(QJsonObject{{u"pct"_s, qInf()}}));
    QVERIFY(!UsageWindow::fromJson(QJsonObject{{u"pct"_s, qQNaN()}}));
    QVERIFY(!UsageWindow::fromJson(json(R"({"pct":"50"})")));
    QVERIFY(!ModelWindow::fromJson(json(R"({"pct":50})")));
    const std::optional<Usage> usage
        = Usage::fromJson(json(R"({"fiveHour":{"pct":"x"},"sevenDay":{"pct":0},"models":[{"label":"Opus"}]})"));
    QVERIFY(usage);
    QVERIFY(!usage->fiveHour);
    QCOMPARE(usage->sevenDay->pct, 0.0);
    QCOMPARE(usage->models->size(), 0);
}

void TestWireRecords::approvalInput()
{
    const std::optional<Approval> tool
        = Approval::fromJson(json(R"({"id":"a","input":{"command":"ls","env":{"A":[1,null,{"b":false}]}}})"));
    QCOMPARE(tool->input, json(R"({"command":"ls","env":{"A":[1,null,{"b":false}]}})"));
    QVERIFY(!Approval::fromJson(json(R"({"id":"a","input":null})"))->input);
    QCOMPARE(Approval::fromJson(json(R"({"id":"a","input":"ls"})"))->input, QJsonValue(u"ls"_s));
    // Equality sees inside the kept value.
    QVERIFY(*Approval::fromJson(json(R"({"id":"a","input":{"x":1}})"))
        != *Approval::fromJson(json(R"({"id":"a","input":{"x":2}})")));
}

QTEST_GUILESS_MAIN(TestWireRecords)
#include "TestWireRecords.moc"
