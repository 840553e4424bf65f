#include "workflows/StepWords.h"

#include "text/Machine.h"
#include "workflows/TriggerWords.h"
#include "workflows/WorkflowWords.h"

#include <QHash>

using namespace Qt::StringLiterals;

namespace WorkflowWords {

namespace {

const QString kStepToken = u"{step:"_s;
const QString kStepVariable = u"\"$TIDEWATCH_STEP_"_s;

QString firstBlankFree(const QString& text)
{
    for (const QString& line : text.split(u'\n')) {
        if (!line.trimmed().isEmpty())
            return line.trimmed();
    }
    return {};
}

bool onCodex(const WFStep& step)
{
    return step.kind == u"start"_s && step.providerId == u"codex"_s;
}

// "“text”", clipped to 40.
QString quoted(const std::optional<QString>& text)
{
    return u"“"_s + clip(text.value_or(QString()), 40) + u"”"_s;
}

QString firstStepWords(const WFStep& step)
{
    const QString& kind = step.kind;
    if (kind == u"shell"_s) {
        const QString folder = lastComponent(step.projectPath.value_or(QString()));
        const QString command = step.command.value_or(QString());
        return command.isEmpty() ? u"in %1, run a command"_s.arg(folder) : u"in %1, run “%2”"_s.arg(folder, command);
    }
    if (kind == u"ask"_s)
        return step.question && !step.question->isEmpty() ? u"ask me "_s + quoted(step.question) : u"ask me"_s;
    if (kind == u"start"_s) {
        if (step.prompt && !step.prompt->isEmpty())
            return u"start "_s + quoted(step.prompt) + (onCodex(step) ? u" in Codex"_s : QString());
        return onCodex(step) ? u"start a Codex session"_s : u"start a session"_s;
    }
    if (kind == u"continue"_s)
        return u"continue a session"_s;
    if (kind == u"say"_s)
        return u"read "_s + quoted(step.text) + u" aloud"_s;
    return u"tell me "_s + quoted(step.text);
}

QString outputWords(const WFOutput& output)
{
    if (output.kind == u"notify"_s)
        return output.glasses == true ? u"notify me and my glasses"_s : u"notify me"_s;
    if (output.kind == u"say"_s)
        return u"read it aloud on my glasses"_s;
    if (output.kind == u"webhook"_s)
        return u"post it to "_s + serviceName(output.preset);
    if (output.kind == u"file"_s) {
        const QString file = lastComponent(output.path.value_or(QString()));
        return u"add it to "_s + (file.isEmpty() ? u"a file"_s : file);
    }
    return output.kind;
}

// "a", "a and b", "a, b and c".
QString listed(QStringList items)
{
    const QString last = items.takeLast();
    return items.isEmpty() ? last : items.join(u", "_s) + u" and "_s + last;
}

bool isStepToken(const QString& token)
{
    return (token.startsWith(kStepToken) && token.endsWith(u'}'))
        || (token.startsWith(kStepVariable) && token.endsWith(u'"') && token.size() > kStepVariable.size());
}

// The number, from 1, of the step a step token names by the rule that made
// it, "-" in an id being "_" in a variable; none when no step of `before` fits.
std::optional<qsizetype> stepNumber(const QString& token, const QList<WFStep>& before)
{
    for (qsizetype i = 0; i < before.size(); ++i) {
        const QString& id = before.at(i).id;
        if (token == kStepToken + id + u'}' || token == kStepVariable + QString(id).replace(u'-', u'_') + u'"')
            return i + 1;
    }
    return std::nullopt;
}

} // namespace

QString kindName(const QString& kind)
{
    static const QHash<QString, QString> names{{u"start"_s, u"Start a session"_s},
        {u"continue"_s, u"Continue a session"_s}, {u"ask"_s, u"Ask me"_s}, {u"shell"_s, u"Run a shell command"_s},
        {u"notify"_s, u"Notify me"_s}, {u"say"_s, u"Read aloud on my glasses"_s}};
    return names.value(kind, u"Something this app doesn’t know yet"_s);
}

QString stepTitle(const WFStep& step)
{
    return onCodex(step) ? u"Start a Codex session"_s : kindName(step.kind);
}

QString stepDetail(const WFStep& step)
{
    const QString& kind = step.kind;
    if (kind == u"start"_s)
        return clip(step.prompt.value_or(QString()), 90);
    if (kind == u"ask"_s)
        return clip(step.question.value_or(QString()), 90);
    if (kind == u"shell"_s)
        return firstBlankFree(step.command.value_or(QString()));
    if (kind == u"continue"_s) {
        const QString prompt = clip(step.prompt.value_or(QString()), 90);
        const QString target = targetWords(step.target.value_or(QString()));
        return prompt.isEmpty() ? target : target + u": "_s + prompt;
    }
    return clip(step.text.value_or(QString()), 90);
}

QString targetWords(const QString& target)
{
    if (target == u"trigger"_s)
        return u"The session that fired it"_s;
    if (target == u"working"_s)
        return u"Every session at work"_s;
    if (target == u"limited"_s)
        return u"Every session a limit stopped"_s;
    if (target.startsWith(u"step:"_s))
        return u"Its earlier session"_s;
    return u"A session"_s;
}

QString serviceName(const std::optional<QString>& preset)
{
    static const QHash<QString, QString> names{
        {u"ntfy"_s, u"ntfy"_s}, {u"slack"_s, u"Slack"_s}, {u"discord"_s, u"Discord"_s}, {u"telegram"_s, u"Telegram"_s}};
    return names.value(preset.value_or(QString()), u"A web address"_s);
}

QString outputName(const WFOutput& output)
{
    if (output.kind == u"notify"_s)
        return output.glasses == true ? u"Notify me and my glasses"_s : u"Notify me"_s;
    if (output.kind == u"webhook"_s)
        return serviceName(output.preset);
    if (output.kind == u"file"_s) {
        const QString file = lastComponent(output.path.value_or(QString()));
        return file.isEmpty() ? u"A file"_s : file;
    }
    return goneOutputName(output.kind);
}

QString goneOutputName(const QString& kind)
{
    static const QHash<QString, QString> names{{u"notify"_s, u"Notify me"_s}, {u"say"_s, u"Read aloud"_s},
        {u"webhook"_s, u"A webhook"_s}, {u"file"_s, u"A file"_s}};
    return names.value(kind, kind);
}

QString automationWords(const WFAutomation& automation)
{
    QString sentence = triggerWords(automation.trigger);
    const QList<WFStep> steps = automation.steps.value_or(QList<WFStep>());
    if (!steps.isEmpty())
        sentence += u", "_s + firstStepWords(steps.first());
    if (const qsizetype more = steps.size() - 1; more > 0)
        sentence += u", then %1 more step%2"_s.arg(more).arg(more > 1 ? u"s"_s : QString());
    sentence += u'.';
    const QList<WFOutput> outputs = automation.outputs.value_or(QList<WFOutput>());
    if (!outputs.isEmpty()) {
        QStringList said;
        for (const WFOutput& output : outputs)
            said << outputWords(output);
        sentence += u" When it’s done, "_s + listed(said) + u'.';
    }
    return sentence;
}

QString placeholderWords(const QString& token, const QList<WFStep>& before)
{
    if (isStepToken(token)) {
        const std::optional<qsizetype> number = stepNumber(token, before);
        if (!number)
            return u"A step that isn’t before this one any more: take it out, or move that step up"_s;
        if (token.startsWith(kStepToken)) {
            return u"Step %1’s result: what it said in two sentences, a command’s last lines, or your answer"_s.arg(
                *number);
        }
        return u"Step %1’s whole result for the command: the whole reply, a command’s output, or your answer"_s.arg(
            *number);
    }
    static const QHash<QString, QString> words{
        {u"{project}"_s, u"{project}: the project’s name"_s},
        {u"{session}"_s, u"{session}: the title of the session that fired it"_s},
        {u"{result}"_s, u"{result}: that session’s last reply, two sentences"_s},
        {u"{ask}"_s, u"{ask}: what that session asks, like Bash: git push"_s},
        {u"{battery}"_s, u"{battery}: how full %1’s battery is"_s.arg(machine::theMachine())},
        {u"{time}"_s, u"{time}: when it runs, like 9:00"_s},
        {u"{week}"_s, u"{week}: your week from Statistics"_s},
        {u"{prev}"_s, u"{prev}: what the step before said, two sentences, or why it failed"_s},
        {u"{exit}"_s, u"{exit}: the last command’s exit code"_s},
        {u"{output}"_s, u"{output}: the last command’s output"_s},
        {u"{answer}"_s, u"{answer}: the answer you gave"_s},
        {u"{payload}"_s, u"{payload}: what fired it: a webhook’s body, the files that changed, GitHub’s news"_s},
        {u"\"$TIDEWATCH_PREV\""_s, u"$TIDEWATCH_PREV: what the step before said"_s},
        {u"\"$TIDEWATCH_PAYLOAD\""_s, u"$TIDEWATCH_PAYLOAD: what fired it"_s},
        {u"\"$TIDEWATCH_OUTPUT\""_s, u"$TIDEWATCH_OUTPUT: the last command’s output"_s},
        {u"\"$TIDEWATCH_ANSWER\""_s, u"$TIDEWATCH_ANSWER: the answer you gave"_s},
    };
    return words.value(token, u"Filled in when it runs"_s);
}

QString placeholderChip(const QString& token, const QList<WFStep>& before)
{
    if (!isStepToken(token))
        return token;
    if (const std::optional<qsizetype> number = stepNumber(token, before))
        return u"Step %1’s result"_s.arg(*number);
    const qsizetype prefix = token.startsWith(kStepToken) ? kStepToken.size() : kStepVariable.size();
    return token.mid(prefix, token.size() - prefix - 1);
}

} // namespace WorkflowWords
