#include "link/LocalStatus.h"

#include "Fixture.h"

#include <QJsonDocument>
#include <QTest>

using namespace Qt::StringLiterals;

class TestLocalStatus : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fullSample();
    void olderServiceParts_data();
    void olderServiceParts();
    void automationsStatus_data();
    void automationsStatus();
    void unreadablePartsSinkOnlyThemselves();
};

namespace {

LocalStatus status(const QByteArray& body)
{
    std::optional<LocalStatus> decoded = decodeDocument<LocalStatus>(body);
    if (!decoded)
        qFatal("status didn't decode: %s", body.constData());
    return *decoded;
}

} // namespace

void TestLocalStatus::fullSample()
{
    const LocalStatus full = status(Fixture::sample(u"local-status-full.json"_s));
    QCOMPARE(full.tailscale->keyExpiry->toDateTime(), QDateTime(QDate(2026, 3, 28), QTime(9, 14, 2), Qt::UTC));
    QCOMPARE(full.tsnet->helper->state, u"Stopped"_s);
    QCOMPARE(full.devices.items[0].glasses->since->msecsSinceEpoch, 1759400000000);
    QCOMPARE(full.sessions.items[0].pendingApprovalIds, QStringList{u"ap_01J9ZK3M2Q"_s});
    QCOMPARE(full.approvals.items[0].canAlways, true);
    QCOMPARE(full.automations->next->name, u"Morning brief"_s);
    QCOMPARE(full.lan->addresses, QStringList({u"192.168.1.24"_s, u"fd7a:115c:a1e0::7"_s}));
    QCOMPARE(full.codex->usage->fiveHour->resetsAt->msecsSinceEpoch, 1760031000000);

    // The model sets the status only when it differs; a second read of the same bytes must not.
    QCOMPARE(status(Fixture::sample(u"local-status-full.json"_s)), full);
}

void TestLocalStatus::olderServiceParts_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("present");

    QTest::newRow("a service before codex, lan and tsnet")
        << QByteArray(R"({"daemonVersion":"0.3.0","apiPort":47321,"hooks":{"installed":true}})") << u"hooks"_s;
    QTest::newRow("lan alone is enough for a local address")
        << QByteArray(R"({"lan":{"port":47323,"addresses":["192.168.1.24"]}})") << u"lan"_s;
    QTest::newRow("an empty status") << QByteArray("{}") << QString();
}

void TestLocalStatus::olderServiceParts()
{
    QFETCH(QByteArray, body);
    QFETCH(QString, present);

    const LocalStatus decoded = status(body);
    QCOMPARE(decoded.codex.has_value(), false);
    QCOMPARE(decoded.tsnet.has_value(), false);
    QCOMPARE(decoded.automations.has_value(), false);
    QCOMPARE(decoded.lan.has_value(), present == u"lan"_s);
    QCOMPARE(decoded.hooks.has_value(), present == u"hooks"_s);
    if (decoded.lan) {
        QCOMPARE(decoded.lan->port, 47323);
        QCOMPARE(decoded.lan->addresses, QStringList{u"192.168.1.24"_s});
        QVERIFY(!decoded.lan->fingerprint);
    }
}

void TestLocalStatus::automationsStatus_data()
{
    QTest::addColumn<QByteArray>("automations");
    QTest::addColumn<bool>("paused");
    QTest::addColumn<qint64>("count");
    QTest::addColumn<QString>("next");
    QTest::addColumn<QStringList>("runningSessions");

    QTest::newRow("every key of another type reads as absent")
        << QByteArray(R"({"paused":"yes","count":"x","next":5,"running":"no"})") << false << 0ll << QString()
        << QStringList();
    QTest::newRow("unreadable runs drop out")
        << QByteArray(R"({"paused":true,"count":2.0,"running":[7,{"sessionId":"s1"},"x",{"name":"B"}]})") << true << 2ll
        << QString() << QStringList{u"s1"_s, u"none"_s};
}

void TestLocalStatus::automationsStatus()
{
    QFETCH(QByteArray, automations);
    QFETCH(bool, paused);
    QFETCH(qint64, count);
    QFETCH(QString, next);

    const LocalStatus decoded = status(R"({"daemonVersion":"0.9.4","automations":)" + automations + "}");
    QCOMPARE(decoded.daemonVersion, u"0.9.4"_s);
    QVERIFY(decoded.automations);
    QCOMPARE(decoded.automations->paused, paused);
    QCOMPARE(decoded.automations->count, count);
    QCOMPARE(decoded.automations->next ? decoded.automations->next->name.value_or(QString()) : QString(), next);
    QStringList sessions;
    for (const AutomationsStatus::Run& run : decoded.automations->running)
        sessions << run.sessionId.value_or(u"none"_s);
    QTEST(sessions, "runningSessions");
}

void TestLocalStatus::unreadablePartsSinkOnlyThemselves()
{
    const LocalStatus decoded = status(R"({"daemonVersion":"0.9.4","apiPort":"47321","claude":"yes",
        "tailscale":{"installed":true,"keyExpiry":"soon","url":7},"tsnet":{"mode":"builtIn","helper":[]},
        "devices":"two","sessions":2,"approvals":[{"id":"a1"},{"id":5}],"usage":{"fiveHour":{"pct":null}},
        "account":"something new","automations":[],"lan":{"port":47323.5,"addresses":["10.0.0.2",7]},
        "codex":{"available":true,"usage":{"fiveHour":{"pct":"x"},"limited":"no"}}})");
    QCOMPARE(decoded.daemonVersion, u"0.9.4"_s);
    QVERIFY(!decoded.apiPort);
    QVERIFY(!decoded.claude);
    QCOMPARE(decoded.tailscale->installed, true);
    QVERIFY(!decoded.tailscale->keyExpiry);
    QVERIFY(!decoded.tailscale->url);
    QCOMPARE(decoded.tsnet->mode, u"builtIn"_s);
    QVERIFY(!decoded.tsnet->helper);
    QCOMPARE(decoded.devices.count, 0);
    QCOMPARE(decoded.sessions.count, 2);
    QCOMPARE(decoded.approvals.count, 2);
    QCOMPARE(decoded.approvals.items.size(), 1);
    QVERIFY(decoded.usage && !decoded.usage->fiveHour);
    QCOMPARE(decoded.account, Account());
    QVERIFY(!decoded.automations);
    QVERIFY(!decoded.lan->port);
    QCOMPARE(decoded.lan->addresses, QStringList{u"10.0.0.2"_s});
    QVERIFY(decoded.codex->available);
    QVERIFY(!decoded.codex->usage->fiveHour);
    QVERIFY(!decoded.codex->usage->limited);
}

QTEST_GUILESS_MAIN(TestLocalStatus)
#include "TestLocalStatus.moc"
