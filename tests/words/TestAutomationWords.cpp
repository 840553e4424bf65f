#include "link/AutomationsSnapshot.h"
#include "link/AutomationsStatus.h"
#include "workflows/AutomationWords.h"
#include "workflows/AutomationsState.h"

#include "Fixture.h"
#include "GoldenTest.h"

#include <QJsonArray>

using namespace Qt::StringLiterals;

namespace {

const QString kNone = u"—"_s;
const QLocale kUs(u"en_US"_s);

AutomationsState state(const QString& source, const QString& text)
{
    if (source == u"status"_s)
        return AutomationsState::fromStatus(Fixture::record<AutomationsStatus>(text.toUtf8()));
    return AutomationsState::fromSnapshot(Fixture::record<AutomationsSnapshot>(text.toUtf8()));
}

QString listed(const QStringList& items)
{
    return items.isEmpty() ? kNone : items.join(u", "_s);
}

QString known(const AutomationsState& state)
{
    QStringList next, running;
    for (const AutomationsState::Next& one : state.upcoming)
        next << one.name;
    for (const AutomationsState::Running& one : state.running) {
        running << one.name + (one.sessionId ? u" in "_s + *one.sessionId : QString())
                + (one.needsYou ? u" needing you"_s : QString());
    }
    QStringList said{QString::number(state.count) + (state.paused ? u", paused"_s : QString()),
        u"on "_s + (state.enabled ? QString::number(*state.enabled) : u"?"_s), u"next "_s + listed(next),
        u"running "_s + listed(running), u"features "_s + (state.features ? state.features->join(u',') : u"?"_s)};
    if (!state.eventNames.isEmpty())
        said << u"events "_s + listed(state.eventNames);
    return said.join(u" | "_s);
}

QString line(const AutomationsState& state)
{
    const std::optional<AutomationWords::Line> line = AutomationWords::line(state, Fixture::now(), kUs);
    if (!line)
        return kNone;
    static const QStringList kinds{u"paused"_s, u"running"_s, u"next"_s, u"ready"_s};
    QStringList said{
        kinds.at(int(line->kind)) + u": "_s + line->text, line->figure ? line->figure->text : kNone, line->help};
    if (line->needsYou)
        said << u"needs you"_s;
    if (line->tag)
        said << *line->tag;
    if (line->action)
        said << *line->action;
    return said.join(u" | "_s);
}

QString render(const QString& section, const QStringList& in)
{
    if (section == u"state"_s)
        return known(state(in.at(0), in.at(1)));
    if (section == u"ask"_s) {
        const AutomationsState s = state(u"snapshot"_s,
            uR"({"features":["steps","ask"],"list":[{"id":"au_a","name":"A","lastRun":)"_s + in.at(0) + u"}]}"_s);
        if (s.asks.isEmpty())
            return kNone;
        const WFAskItem& ask = s.asks.first();
        return u"%1 of %2 at %3: %4, else %5, until +%6 s"_s.arg(ask.runId, ask.automationId, ask.stepId,
            ask.answers.join(u" or "_s), ask.defaultAnswer,
            QString::number((ask.until.msecsSinceEpoch - Fixture::kNowMs) / 1000));
    }
    if (section == u"line"_s)
        return line(state(u"snapshot"_s, in.at(0)));
    if (section == u"time"_s)
        return AutomationWords::time(Fixture::at(in.at(1).toDouble()), Fixture::now(), QLocale(in.at(0)));
    if (section == u"settings"_s)
        return AutomationWords::settingsLine(state(in.at(0), in.at(1)), Fixture::now(), kUs);
    if (section == u"chip"_s) {
        AutomationRef ref;
        if (!in.at(0).isEmpty())
            ref.name = Fixture::json("[" + in.at(0).toUtf8() + "]").toArray().at(0).toString();
        return QStringList{AutomationWords::chip(), AutomationWords::chipHelp(ref), AutomationWords::foldedWords()}
            .join(u" | "_s);
    }
    if (section == u"resume"_s)
        return AutomationWords::resumeHelp();
    return u"no words for the section "_s + section;
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"automation-words.txt"_s}, render);
}
