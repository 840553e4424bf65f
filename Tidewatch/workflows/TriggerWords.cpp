#include "workflows/TriggerWords.h"

#include "text/Machine.h"
#include "workflows/WorkflowWords.h"

#include <QHash>

using namespace Qt::StringLiterals;

namespace WorkflowWords {

namespace {

// "a, b or c"; "news" when there is nothing.
QString githubNews(const QStringList& events)
{
    static const QHash<QString, QString> words{{u"pr_opened"_s, u"a new pull request"_s},
        {u"review_comment"_s, u"a review on my pull requests"_s},
        {u"checks_failed"_s, u"failed checks on my pull requests"_s}};
    QStringList said;
    for (const QString& event : events) {
        if (words.contains(event))
            said << words.value(event);
    }
    if (said.isEmpty())
        return u"news"_s;
    const QString last = said.takeLast();
    return said.isEmpty() ? last : said.join(u", "_s) + u" or "_s + last;
}

QString hookWords(const WFTrigger& trigger)
{
    QString who = u"one of my sessions"_s;
    if (trigger.from == u"automated"_s)
        who = u"an automated session"_s;
    else if (trigger.from == u"any"_s)
        who = u"any session"_s;
    QString what = u"ends"_s;
    const QString event = trigger.event.value_or(QString());
    if (event.isEmpty() || event == u"Stop"_s)
        what = u"ends a turn"_s;
    else if (event == u"StopFailure"_s)
        what = u"stops on an API error"_s;
    else if (event == u"PostToolUseFailure"_s)
        what = trigger.tool && !trigger.tool->isEmpty() ? u"has a %1 call fail"_s.arg(*trigger.tool)
                                                        : u"has a tool call fail"_s;
    else if (event == u"PreCompact"_s)
        what = u"is about to compact its context"_s;
    return u"When "_s + who + u' ' + what;
}

QString fileWords(const WFTrigger& trigger)
{
    QString verb = u"is added"_s;
    if (trigger.event == u"deleted"_s)
        verb = u"is deleted"_s;
    else if (trigger.event == u"changed"_s)
        verb = u"changes"_s;
    const QString folder = lastComponent(trigger.path.value_or(QString()));
    if (trigger.glob && !trigger.glob->isEmpty())
        return u"When a file matching %1 %2 in %3"_s.arg(*trigger.glob, verb, folder);
    return u"When a file %1 in %2"_s.arg(verb, folder);
}

} // namespace

QString guardWords(const std::optional<WFGuard>& guard)
{
    const QString on = guard ? guard->on : QString();
    if (on.isEmpty() || on == u"none"_s)
        return u"unless the step before failed"_s;
    static const QHash<QString, QString> plain{{u"ok"_s, u"only if the step before went fine"_s},
        {u"failed"_s, u"only if the step before failed"_s}, {u"quiet"_s, u"only if the step before had nothing new"_s},
        {u"not_quiet"_s, u"only if the step before had news"_s}};
    if (plain.contains(on))
        return plain.value(on);
    const QString text = guard->text.value_or(QString()).trimmed();
    if (on == u"contains"_s) {
        return text.isEmpty() ? u"only if the step before mentions certain words"_s
                              : u"only if the step before mentions “%1”"_s.arg(text);
    }
    if (on == u"answer"_s)
        return u"only if the answer is "_s + guard->text.value_or(QString());
    return u"only if something this app doesn’t know yet"_s;
}

QString triggerWords(const WFTrigger& trigger)
{
    const QString& kind = trigger.kind;
    if (kind == u"webhook"_s)
        return u"When a script or a webhook fires it"_s;
    if (kind == u"cron"_s)
        return u"On the schedule “%1”"_s.arg(trigger.expr.value_or(QString()));
    if (kind == u"file"_s)
        return fileWords(trigger);
    if (kind == u"github"_s) {
        return u"When %1 gets %2 on GitHub"_s.arg(
            lastComponent(trigger.repoPath.value_or(QString())), githubNews(trigger.events.value_or(QStringList())));
    }
    if (kind == u"hook"_s)
        return hookWords(trigger);
    if (kind == u"time"_s) {
        // An instant has no clock to tell here.
        const QString* clock = trigger.at ? trigger.at->clock() : nullptr;
        return clock ? u"At "_s + *clock : u"At"_s;
    }
    if (kind == u"once"_s)
        return u"Once, at a set time"_s;
    if (kind == u"every"_s)
        return u"Every %1 hours"_s.arg(trigger.hours.value_or(1));
    if (kind == u"reset"_s)
        return u"When your usage window resets"_s;
    if (kind == u"limit"_s)
        return u"When you reach a usage limit"_s;
    if (kind == u"session"_s)
        return trigger.event == u"needs_you"_s ? u"When a session needs you"_s : u"When a session finishes"_s;
    if (kind == u"power"_s) {
        return trigger.event == u"low"_s ? u"When the battery runs low"_s
                                         : u"When %1 is plugged in"_s.arg(machine::theMachine());
    }
    return u"When something this app doesn’t know yet happens"_s;
}

} // namespace WorkflowWords
