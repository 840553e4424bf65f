#include "model/Agents.h"
#include "model/TailscaleAction.h"

#include "Fixture.h"

#include <QTest>

using namespace Qt::StringLiterals;

using Kind = TailscaleAction::Kind;

namespace {

constexpr auto snapshotOf = &Fixture::maybe<Snapshot>;
constexpr auto statusOf = &Fixture::maybe<LocalStatus>;

QString outcome(const AgentsInUse& agents)
{
    QStringList words;
    switch (agents.leader()) {
    case AgentsInUse::Leader::Claude:
        words << "claude leads";
        break;
    case AgentsInUse::Leader::Codex:
        words << "codex leads";
        break;
    case AgentsInUse::Leader::None:
        words << "none leads";
        break;
    }
    if (agents.codexBeside())
        words << "codex beside";
    if (agents.codexAlone())
        words << "codex alone";
    if (!agents.agentHere())
        words << "no agent";
    return words.join(", ");
}

} // namespace

class TestAgents : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void agentsInUse_data();
    void agentsInUse();
    void serviceDownTrustsNoCodex();
    void setupGap_data();
    void setupGap();
    void tailscale_data();
    void tailscale();
    void phoneAddress();
};

void TestAgents::agentsInUse_data()
{
    QTest::addColumn<QByteArray>("snapshot");
    QTest::addColumn<QByteArray>("status");
    QTest::addColumn<bool>("sample");
    QTest::addColumn<int>("look");
    QTest::addColumn<QString>("expected");

    const int noLook = -1;
    QTest::newRow("Codex sessions and a service without Claude Code: Codex alone")
        << QByteArray(R"({"sessions":[{"id":"019a","state":"idle","agent":"codex"}],"approvals":[],)"
                      R"("claude":{"available":false,"version":null},"codex":{"available":true,"enabled":true}})")
        << QByteArray() << false << 0 << "codex leads, codex alone";
    QTest::newRow("an old service without either record: Claude Code as always")
        << QByteArray(R"({"sessions":[]})") << QByteArray() << false << noLook << "claude leads";
    QTest::newRow("both in use: Claude Code leads")
        << QByteArray(R"({"claude":{"available":true},"codex":{"available":true,"enabled":true}})") << QByteArray()
        << false << noLook << "claude leads, codex beside";
    QTest::newRow("Codex available but off: Claude Code alone")
        << QByteArray(R"({"claude":{"available":true},"codex":{"available":true,"enabled":false}})") << QByteArray()
        << false << noLook << "claude leads";
    QTest::newRow("Codex alone but off leads, not in use")
        << QByteArray(R"({"claude":{"available":false},"codex":{"available":true}})") << QByteArray() << false << 0
        << "codex leads";
    QTest::newRow("a Codex too old: nothing leads, yet an agent is here")
        << QByteArray(R"({"claude":{"available":false},"codex":{"available":false,"enabled":true,"path":"/x/codex",)"
                      R"("version":"0.150.2","min":"0.163.0"}})")
        << QByteArray() << false << 0 << "none leads";
    QTest::newRow("no agent at all, once the local look found none")
        << QByteArray(R"({"claude":{"available":false}})") << QByteArray() << false << 0 << "none leads, no agent";
    QTest::newRow("a Claude Code session says it is here")
        << QByteArray(R"({"claude":{"available":false},"sessions":[{"id":"s"}]})") << QByteArray() << false << noLook
        << "claude leads";
    QTest::newRow("the status's path says it is here")
        << QByteArray() << QByteArray(R"({"claude":{"path":"/usr/bin/claude"}})") << false << noLook << "claude leads";
    QTest::newRow("installed hooks say it is here")
        << QByteArray() << QByteArray(R"({"claude":{"path":null},"hooks":{"installed":true}})") << false << noLook
        << "claude leads";
    QTest::newRow("a status without a path and a look that found nothing")
        << QByteArray() << QByteArray(R"({"claude":{"path":null}})") << false << 0 << "none leads, no agent";
    QTest::newRow("a look that found it wins over the service's word")
        << QByteArray(R"({"claude":{"available":false}})") << QByteArray() << false << 1 << "claude leads";
    QTest::newRow("no look yet counts as here")
        << QByteArray(R"({"claude":{"available":false}})") << QByteArray() << false << noLook << "claude leads";
    QTest::newRow("a sample looks at nothing")
        << QByteArray(R"({"claude":{"available":false}})") << QByteArray() << true << 1 << "none leads, no agent";
}

void TestAgents::agentsInUse()
{
    QFETCH(QByteArray, snapshot);
    QFETCH(QByteArray, status);
    QFETCH(bool, sample);
    QFETCH(int, look);
    const std::optional<Snapshot> snap = snapshotOf(snapshot);
    const std::optional<LocalStatus> stat = statusOf(status);
    Agents::Inputs inputs{snap, stat, true, sample, false, look < 0 ? std::nullopt : std::optional<bool>(look == 1)};
    QTEST(outcome(Agents::agentsInUse(inputs)), "expected");
}

void TestAgents::serviceDownTrustsNoCodex()
{
    const std::optional<Snapshot> snap = snapshotOf(R"({"codex":{"available":true,"enabled":true}})");
    const std::optional<LocalStatus> none;
    const Agents::Inputs down{snap, none, false, false, false, std::nullopt};
    const Agents::Inputs up{snap, none, true, false, false, std::nullopt};
    QVERIFY(!Agents::trustedCodex(down));
    QVERIFY(Agents::trustedCodex(up));
}

void TestAgents::setupGap_data()
{
    QTest::addColumn<QString>("agents");
    QTest::addColumn<QByteArray>("status");
    QTest::addColumn<bool>("testCopy");
    QTest::addColumn<int>("step");

    const int none = -1;
    const QByteArray unpaired = R"({"hooks":{"installed":true},"tailscale":{"installed":false}})";
    QTest::newRow("no status: nothing to say") << "claude" << QByteArray() << false << none;
    QTest::newRow("Claude Code without its hooks: connect")
        << "claude" << QByteArray(R"({"hooks":{"installed":false}})") << false << int(SetupStep::Connect);
    QTest::newRow("a test copy never connects Claude Code")
        << "claude" << QByteArray(R"({"hooks":{"installed":false},"devices":[{"id":"d"}]})") << true << none;
    QTest::newRow("Codex alone: no connect step, straight to phone access")
        << "codex" << QByteArray(R"({"hooks":{"installed":false},"tailscale":{"installed":false}})") << false
        << int(SetupStep::Tailscale);
    QTest::newRow("no agent at all: install one") << "" << unpaired << false << int(SetupStep::Claude);
    QTest::newRow("a test copy without agents goes on to the phone") << "" << unpaired << true << int(SetupStep::Phone);
    QTest::newRow("no Claude Code and Codex off: Codex's step")
        << "codex-off" << unpaired << false << int(SetupStep::Codex);
    QTest::newRow("nothing reaches the phone: phone access")
        << "claude" << unpaired << false << int(SetupStep::Tailscale);
    QTest::newRow("a LAN address is a route: pair instead")
        << "claude"
        << QByteArray(R"({"tailscale":{"installed":false},"lan":{"port":47323,"addresses":["192.168.1.24"]}})") << false
        << int(SetupStep::Phone);
    QTest::newRow("the built-in node up: pair")
        << "claude"
        << QByteArray(R"({"tsnet":{"mode":"builtIn","url":"https://m.ts.net","helper":{"state":"Running"}}})") << false
        << int(SetupStep::Phone);
    QTest::newRow("a paired phone: nothing left")
        << "claude" << QByteArray(R"({"tailscale":{"installed":false},"devices":[{"id":"d1"}]})") << false << none;
    QTest::newRow("an older service's bare device count counts too")
        << "claude" << QByteArray(R"({"tailscale":{"installed":false},"devices":2})") << false << none;
}

void TestAgents::setupGap()
{
    QFETCH(QString, agents);
    QFETCH(QByteArray, status);
    QFETCH(bool, testCopy);
    AgentsInUse inUse;
    inUse.claude = agents == "claude";
    inUse.codexHere = inUse.codexAvailable = agents.startsWith("codex");
    inUse.codexEnabled = agents == "codex";
    const std::optional<SetupStep> gap = Agents::setupGap(inUse, statusOf(status), testCopy);
    QTEST(gap ? int(*gap) : -1, "step");
}

void TestAgents::tailscale_data()
{
    QTest::addColumn<QByteArray>("status");
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("detail");

    QTest::newRow("a short record raises no alarm but has no address")
        << QByteArray(R"({"tailscale":{}})") << int(Kind::TurnOnServe) << u""_s << u""_s;
    QTest::newRow("no Tailscale record at all") << QByteArray("{}") << int(Kind::TurnOnServe) << u""_s << u""_s;
    QTest::newRow("not installed") << QByteArray(R"({"tailscale":{"installed":false,"running":false}})")
                                   << int(Kind::Install) << u""_s << u""_s;
    QTest::newRow("not running") << QByteArray(R"({"tailscale":{"running":false,"loggedIn":false}})")
                                 << int(Kind::OpenApp) << u""_s << u""_s;
    QTest::newRow("signed out") << QByteArray(R"({"tailscale":{"loggedIn":false}})") << int(Kind::OpenApp) << u""_s
                                << u""_s;
    QTest::newRow("no HTTPS") << QByteArray(R"({"tailscale":{"httpsEnabled":false,"serveOn":true,"url":"https://x"}})")
                              << int(Kind::EnableHTTPS) << u""_s << u""_s;
    QTest::newRow("serving off") << QByteArray(R"({"tailscale":{"serveOn":false,"url":"https://x"}})")
                                 << int(Kind::TurnOnServe) << u""_s << u""_s;
    QTest::newRow("ready, without the trailing slash")
        << QByteArray(R"({"tailscale":{"serveOn":true,"url":"https://mac.tail.ts.net/"}})") << int(Kind::Ready)
        << u"https://mac.tail.ts.net"_s << u""_s;
    QTest::newRow("built-in running and listening")
        << QByteArray(R"({"tsnet":{"mode":"builtIn","available":true,"enabled":true,"url":"https://b.ts.net",)"
                      R"("helper":{"state":"Running","listening":":443","tls":"pinned"}}})")
        << int(Kind::ReadyBuiltIn) << u"https://b.ts.net"_s << u""_s;
    QTest::newRow("built-in needs a sign-in")
        << QByteArray(R"({"tsnet":{"mode":"builtIn","helper":{"state":"NeedsLogin","loginUrl":"https://login.ts/a"}}})")
        << int(Kind::SignInBuiltIn) << u"https://login.ts/a"_s << u""_s;
    QTest::newRow("a sign-in address that isn't https waits")
        << QByteArray(R"({"tsnet":{"mode":"builtIn","helper":{"state":"NeedsLogin","loginUrl":"http://x"}}})")
        << int(Kind::BuiltInWaiting) << u""_s << u"NeedsLogin"_s;
    QTest::newRow("built-in with an error says it")
        << QByteArray(R"({"tsnet":{"mode":"builtIn","helper":{"state":"Stopped","error":"no route"}}})")
        << int(Kind::BuiltInWaiting) << u""_s << u"no route"_s;
    QTest::newRow("built-in without a helper is starting")
        << QByteArray(R"({"tsnet":{"mode":"builtIn"}})") << int(Kind::BuiltInWaiting) << u""_s << u"starting"_s;
}

void TestAgents::tailscale()
{
    QFETCH(QByteArray, status);
    const TailscaleAction action = TailscaleAction::decide(*statusOf(status));
    QTEST(int(action.kind), "kind");
    QTEST(action.url, "url");
    QTEST(action.detail, "detail");
}

void TestAgents::phoneAddress()
{
    const char* app = R"({"tailscale":{"url":"https://a.ts.net/"}})";
    const char* builtIn = R"({"tsnet":{"mode":"builtIn","url":"https://b.ts.net"}})";
    const char* off = R"({"tsnet":{"mode":"off","url":"https://b.ts.net"}})";
    const char* pinnedNode = R"({"tsnet":{"mode":"builtIn","helper":{"state":"Running","listening":"yes",)"
                             R"("tls":"pinned","account":"me@x","dnsName":"mac"}}})";
    QCOMPARE(::phoneAddress(*statusOf(app)), QStringLiteral("https://a.ts.net"));
    QCOMPARE(::phoneAddress(*statusOf(builtIn)), QStringLiteral("https://b.ts.net"));
    QCOMPARE(::phoneAddress(*statusOf(off)), QString());
    const TailscaleAction pinned = TailscaleAction::decide(*statusOf(pinnedNode));
    QVERIFY(pinned.pinned);
    QCOMPARE(pinned.account, std::optional<QString>(QStringLiteral("me@x")));
    QCOMPARE(pinned.node, std::optional<QString>(QStringLiteral("mac")));
}

QTEST_GUILESS_MAIN(TestAgents)
#include "TestAgents.moc"
