#include "workflows/AutomationWords.h"

#include "text/TimeWords.h"

#include <algorithm>

using namespace Qt::StringLiterals;

namespace AutomationWords {

QString time(const FlexDate& date, const QDateTime& now, const QLocale& locale)
{
    return TimeWords::sameDayTime(date, now, locale);
}

std::optional<Line> line(const AutomationsState& state, const QDateTime& now, const QLocale& locale)
{
    if (state.count <= 0)
        return std::nullopt;
    Line line;
    if (state.paused) {
        line.kind = Kind::Paused;
        line.text = u"Automations paused"_s;
        line.help = u"Nothing starts by itself until you resume. Runs already working carry on."_s;
        line.action = u"Resume"_s;
        return line;
    }
    if (!state.running.isEmpty()) {
        line.kind = Kind::Running;
        line.needsYou = std::any_of(state.running.cbegin(), state.running.cend(),
            [](const AutomationsState::Running& run) { return run.needsYou; });
        if (state.running.size() == 1) {
            const AutomationsState::Running& run = state.running.first();
            line.text = run.name;
            // A run that has just begun reads "1m" rather than "now".
            if (run.startedAt) {
                const double age = std::max(60.0, -TimeWords::secondsFrom(now, *run.startedAt));
                line.figure = Figure{Glyph::Timer, TimeWords::coarseAge(age)};
            }
            line.help
                = run.needsYou ? u"It waits on you. Click to open its terminal."_s : u"Click to open its terminal."_s;
        } else {
            line.text = u"%1 automations running"_s.arg(state.running.size());
            QStringList names;
            for (const AutomationsState::Running& run : state.running)
                names.append(run.name);
            line.help = names.join(u", "_s);
        }
        return line;
    }
    if (state.enabled && *state.enabled == 0)
        return std::nullopt;
    if (!state.upcoming.isEmpty()) {
        const AutomationsState::Next& first = state.upcoming.first();
        line.kind = Kind::Next;
        line.text = first.name;
        line.figure = Figure{Glyph::Clock, time(first.at, now, locale)};
        if (state.upcoming.size() == 1) {
            line.help = u"Edit automations on your phone."_s;
        } else {
            QStringList lines{u"Next up:"_s};
            for (const AutomationsState::Next& next : state.upcoming.mid(0, 3))
                lines.append(u"%1 at %2"_s.arg(next.name, time(next.at, now, locale)));
            line.help = lines.join(u'\n');
        }
        return line;
    }
    line.kind = Kind::Ready;
    if (state.eventNames.size() == 1) {
        line.text = state.eventNames.first();
        line.tag = u"ready"_s;
        line.help = u"It runs when its moment comes."_s;
        return line;
    }
    qint64 n = state.eventNames.size();
    if (n == 0)
        n = state.enabled.value_or(0);
    if (n == 0)
        n = state.count;
    line.text = u"%1 automations ready"_s.arg(std::max<qint64>(1, n));
    line.help = state.eventNames.isEmpty() ? u"They run when their moment comes."_s : state.eventNames.join(u'\n');
    return line;
}

QString settingsLine(const AutomationsState& state, const QDateTime& now, const QLocale& locale)
{
    if (state.paused)
        return u"paused"_s;
    if (state.count <= 0)
        return u"none yet"_s;
    const qint64 on = state.enabled.value_or(state.count);
    if (!state.upcoming.isEmpty())
        return u"%1 on, next %2"_s.arg(on).arg(time(state.upcoming.first().at, now, locale));
    return u"%1 on"_s.arg(on);
}

QString chip()
{
    return u"Auto"_s;
}

QString chipHelp(const AutomationRef& automation)
{
    if (automation.name && !automation.name->trimmed().isEmpty())
        return u"Started by the automation “%1”"_s.arg(automation.name->trimmed());
    return u"Started by an automation"_s;
}

QString foldedWords()
{
    return u"started by an automation"_s;
}

QString resumeHelp()
{
    return QStringLiteral("Automations start by themselves again");
}

} // namespace AutomationWords
