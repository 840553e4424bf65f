#include "model/Agents.h"
#include "model/TailscaleAction.h"

#include "Fixture.h"
#include "GoldenTest.h"

using namespace Qt::StringLiterals;

namespace {

constexpr auto snapshotOf = &Fixture::maybe<Snapshot>;
constexpr auto statusOf = &Fixture::maybe<LocalStatus>;

QString outcome(const AgentsInUse& agents)
{
    static const QStringList leaders{u"none leads"_s, u"claude leads"_s, u"codex leads"_s};
    QStringList words{leaders.at(int(agents.leader()))};
    if (agents.codexBeside())
        words << u"codex beside"_s;
    if (agents.codexAlone())
        words << u"codex alone"_s;
    if (!agents.agentHere())
        words << u"no agent"_s;
    return words.join(u", "_s);
}

QString render(const QString& section, const QStringList& in)
{
    if (section == u"leader"_s) {
        const std::optional<Snapshot> snapshot = snapshotOf(in.at(0).toUtf8());
        const std::optional<LocalStatus> status = statusOf(in.value(1).toUtf8());
        const QString& look = in.value(2);
        const std::optional<bool> found = look.isEmpty() ? std::nullopt : std::optional(look == u"found"_s);
        const Agents::Inputs inputs{snapshot, status, true, in.value(3) == u"sample"_s, false, found};
        return outcome(Agents::agentsInUse(inputs));
    }
    if (section == u"codex trusted"_s) {
        const std::optional<Snapshot> snapshot = snapshotOf(in.at(0).toUtf8());
        const std::optional<LocalStatus> none;
        return Agents::trustedCodex({snapshot, none, in.at(1) == u"up"_s, false, false, std::nullopt}) ? u"trusted"_s
                                                                                                       : u"not"_s;
    }
    if (section == u"setup gap"_s) {
        static const QStringList steps{
            u"claude"_s, u"service"_s, u"connect"_s, u"tailscale"_s, u"voice"_s, u"codex"_s, u"phone"_s};
        AgentsInUse inUse;
        inUse.claude = in.at(0) == u"claude"_s;
        inUse.codexHere = inUse.codexAvailable = in.at(0).startsWith(u"codex"_s);
        inUse.codexEnabled = in.at(0) == u"codex"_s;
        const std::optional<SetupStep> gap
            = Agents::setupGap(inUse, statusOf(in.at(1).toUtf8()), in.value(2) == u"test copy"_s);
        return gap ? steps.at(int(*gap)) : u"—"_s;
    }
    if (section == u"tailscale"_s) {
        static const QStringList kinds{u"open the app"_s, u"ready"_s, u"sign in built-in"_s, u"built-in waiting"_s,
            u"ready built-in"_s, u"install"_s, u"enable HTTPS"_s, u"turn on serve"_s};
        const TailscaleAction action = TailscaleAction::decide(*statusOf(in.at(0).toUtf8()));
        QString said = kinds.at(int(action.kind)) + (action.url.isEmpty() ? QString() : u" at "_s + action.url);
        if (!action.detail.isEmpty())
            said += u" ("_s + action.detail + u')';
        if (action.pinned)
            said += u", pinned to "_s + action.account.value_or(u"?"_s) + u" on "_s + action.node.value_or(u"?"_s);
        const QString address = phoneAddress(*statusOf(in.at(0).toUtf8()));
        return said + u" | the phone's address: "_s + (address.isEmpty() ? u"—"_s : address);
    }
    return u"no words for the section "_s + section;
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"agents-in-use.txt"_s}, render);
}
