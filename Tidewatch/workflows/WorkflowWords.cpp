#include "workflows/WorkflowWords.h"

#include "text/Machine.h"

#include <QHash>
#include <QTextBoundaryFinder>

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace WorkflowWords {

namespace {

bool isLineEnd(QChar c)
{
    const char16_t u = c.unicode();
    return u == 0x0A || u == 0x0B || u == 0x0C || u == 0x0D || u == 0x85 || u == 0x2028 || u == 0x2029;
}

// The text's lines at every kind of line end, empty ones dropped.
QStringList splitLines(const QString& text)
{
    QStringList lines;
    qsizetype start = 0;
    for (qsizetype i = 0; i <= text.size(); ++i) {
        if (i == text.size() || isLineEnd(text.at(i))) {
            if (i > start)
                lines.append(text.mid(start, i - start));
            start = i + 1;
        }
    }
    return lines;
}

QString trimEnd(QString text, QStringView characters)
{
    qsizetype end = text.size();
    while (end > 0 && characters.contains(text.at(end - 1)))
        --end;
    text.truncate(end);
    return text;
}

QString trimSpaces(const QString& text)
{
    qsizetype start = 0;
    while (start < text.size() && text.at(start) == u' ')
        ++start;
    return trimEnd(text.mid(start), u" ");
}

// Where the first `max` characters end, counted as a reader sees them, so an
// emoji or an accented letter is never split.
qsizetype endOfCharacters(const QString& text, qsizetype max, bool* fits)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    qsizetype position = 0;
    while (count < max) {
        const qsizetype next = finder.toNextBoundary();
        if (next < 0) {
            *fits = true;
            return text.size();
        }
        position = next;
        ++count;
    }
    *fits = finder.toNextBoundary() < 0;
    return position;
}

} // namespace

QString clip(const QString& text, qsizetype max)
{
    QString joined = trimSpaces(splitLines(text).join(u' '));
    bool fits = false;
    const qsizetype end = endOfCharacters(joined, std::max<qsizetype>(0, max), &fits);
    if (fits)
        return joined;
    QString cut = joined.left(end);
    const qsizetype space = cut.lastIndexOf(u' ');
    if (space >= 0)
        cut.truncate(space);
    return trimEnd(cut, u",.:; ") + u'…';
}

std::optional<QString> lastLine(const QString& text)
{
    const QStringList lines = splitLines(text);
    for (qsizetype i = lines.size() - 1; i >= 0; --i) {
        if (const QString line = lines.at(i).trimmed(); !line.isEmpty())
            return clip(line, 80);
    }
    return std::nullopt;
}

QString span(double seconds)
{
    const qint64 whole = std::isfinite(seconds) && seconds > 0 ? qint64(std::floor(seconds)) : 0;
    if (whole < 60)
        return u"%1s"_s.arg(whole);
    if (whole < 3600)
        return u"%1m %2s"_s.arg(whole / 60).arg(whole % 60, 2, 10, QChar(u'0'));
    return u"%1h %2m"_s.arg(whole / 3600).arg(whole / 60 % 60, 2, 10, QChar(u'0'));
}

QString lastComponent(const QString& path)
{
    QString trimmed = path;
    while (trimmed.size() > 1 && trimmed.endsWith(u'/'))
        trimmed.chop(1);
    const qsizetype slash = trimmed.lastIndexOf(u'/');
    return slash < 0 || trimmed.size() == 1 ? trimmed : trimmed.mid(slash + 1);
}

std::optional<QString> countdown(const WFAskItem& ask, const QDateTime& now)
{
    if (ask.defaultAnswer.trimmed().isEmpty())
        return std::nullopt;
    const double left = std::max(0.0, double(ask.until.msecsSinceEpoch - now.toMSecsSinceEpoch()) / 1000.0);
    const QString time
        = left >= 120 ? u"%1m"_s.arg(qint64(std::ceil(left / 60))) : u"%1s"_s.arg(qint64(std::ceil(left)));
    return u"%1 in %2"_s.arg(ask.defaultAnswer.trimmed(), time);
}

QString answerWords(const QString& text, const std::optional<QString>& by)
{
    if (by == u"timeout"_s)
        return u"Nobody answered: taken as "_s + text;
    if (by == u"glasses"_s)
        return u"Answered %1 on your glasses"_s.arg(text);
    if (by == u"mac"_s)
        return u"Answered %1 on %2"_s.arg(text, machine::theMachine());
    return u"Answered "_s + text;
}

QString alreadyAnswered(const std::optional<WFRun>& run)
{
    if (run) {
        for (const WFRunStep& step : run->steps) {
            if (step.answer)
                return u"It was answered already: "_s + answerWords(step.answer->text, step.answer->by);
        }
    }
    return u"It was answered already."_s;
}

std::optional<QString> codeSentence(const QString& code)
{
    static const QHash<QString, QString> sentences{
        {u"bad_name"_s, u"Give it a name, 60 characters at most."_s},
        {u"project_needed"_s, u"Pick the project."_s},
        {u"no_prompt"_s, u"Write what it should do."_s},
        {u"text_needed"_s, u"Write what to say."_s},
        {u"provider_needed"_s, u"Pick where it runs."_s},
        {u"bad_target"_s, u"That session isn’t there to continue."_s},
        {u"bad_placeholder"_s,
            u"Words from another session or from outside can’t go there. A command reads them from its environment."_s},
        {u"bad_rule"_s, u"That isn’t a rule Claude Code reads."_s},
        {u"rule_too_broad"_s, u"That rule allows too much."_s},
        {u"bad_guard"_s, u"That condition doesn’t fit here."_s},
        {u"guard_text"_s, u"Write the words to look for."_s},
        {u"bad_question"_s, u"Write the question, 200 characters at most."_s},
        {u"bad_answers"_s, u"Give 2 or 3 different answers, 24 characters each at most."_s},
        {u"bad_timeout"_s, u"Pick how long it waits."_s},
        {u"no_command"_s, u"Write the command to run."_s},
        {u"bad_step"_s,
            u"%1 can’t run this step yet. Update Tidewatch on %2, or pick another."_s.arg(
                machine::YourMachine(), machine::theMachine())},
        {u"bad_steps"_s, u"A workflow has 1 to 5 steps."_s},
        {u"bad_outputs"_s, u"Tell two places at most."_s},
        {u"bad_output"_s, u"%1 can’t send there yet."_s.arg(machine::YourMachine())},
        {u"bad_text"_s, u"500 characters at most."_s},
        {u"url_needed"_s, u"Paste its address."_s},
        {u"bad_url"_s, u"That isn’t this service’s address."_s},
        {u"insecure_url"_s, u"Use an https address."_s},
        {u"bad_bot_token"_s, u"That isn’t a bot token from @BotFather."_s},
        {u"bad_chat"_s, u"A chat is a number or @channel."_s},
        {u"bad_path"_s, u"Pick a file inside the project."_s},
        {u"secret_file"_s, u"That file holds secrets. Pick another."_s},
        {u"bad_budget"_s, u"A budget is 1 to 720 minutes, or 1 to 100 points of the window."_s},
        {u"bad_cron"_s, u"That isn’t a schedule: five fields, like */15 9-18 * * 1-5."_s},
        {u"too_often"_s, u"That runs more often than every 5 minutes."_s},
        {u"not_github"_s, u"That project has no GitHub remote."_s},
        {u"no_gh"_s, u"GitHub’s gh is missing or signed out on %1."_s.arg(machine::theMachine())},
        {u"bad_glob"_s, u"That pattern doesn’t read: 200 characters and four ** at most."_s},
        {u"no_project"_s, u"That project folder isn’t there."_s},
        {u"outside_projects"_s, u"That folder is outside your projects folder."_s},
        {u"bad_trigger"_s, u"That moment isn’t one %1 can watch for."_s.arg(machine::yourMachine())},
        {u"has_steps"_s, u"This automation has steps. Edit it in a newer Tidewatch."_s},
        {u"steps_changed"_s, u"Its steps changed since that run. Retry it from the start."_s},
        {u"not_asking"_s, u"That was answered already."_s},
        {u"bad_answer"_s, u"That isn’t one of its answers."_s},
        {u"confirm_shell"_s, u"A command needs Touch ID or your password first."_s},
        {u"no_glasses"_s, u"No glasses are paired to read aloud on."_s},
        {u"too_many"_s, u"That’s 50 automations, the most there can be."_s},
    };
    const auto found = sentences.constFind(code);
    if (found == sentences.constEnd())
        return std::nullopt;
    return *found;
}

QString answerFailure(const DaemonError& error)
{
    QString why;
    if (error.code == u"not_asking"_s) {
        std::optional<WFRun> run;
        if (error.run)
            run = WFRun::fromJson(*error.run);
        why = alreadyAnswered(run);
    } else {
        // A code without a sentence here reads in the service's own words.
        why = (error.code ? codeSentence(*error.code) : std::nullopt).value_or(error.errorDescription());
    }
    return u"Couldn’t send your answer. "_s + why;
}

} // namespace WorkflowWords
