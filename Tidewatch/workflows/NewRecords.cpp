#include "workflows/NewRecords.h"

#include <QRandomGenerator>

using namespace Qt::StringLiterals;

namespace NewRecords {

namespace {

// Each of the 32 bits is uniform, so each of the eight digits is.
QString randomId(const QString& prefix)
{
    return prefix + u"%1"_s.arg(QRandomGenerator::global()->generate(), 8, 16, QChar(u'0'));
}

} // namespace

QString stepId()
{
    return randomId(u"st_"_s);
}

QString outputId()
{
    return randomId(u"ou_"_s);
}

WFTrigger trigger(const QString& kind)
{
    WFTrigger made;
    made.kind = kind;
    if (kind == u"cron"_s) {
        made.expr = u"0 9 * * 1-5"_s;
    } else if (kind == u"file"_s) {
        made.event = u"created"_s;
        made.path = QString();
    } else if (kind == u"github"_s) {
        made.repoPath = QString();
        made.events = QStringList{u"pr_opened"_s};
        made.every = 10;
    } else if (kind == u"hook"_s) {
        made.event = u"Stop"_s;
        made.from = u"mine"_s;
    }
    return made;
}

WFStep step(
    const QString& kind, const QString& projectPath, const std::optional<QString>& providerId, const WFStep* before)
{
    WFStep made;
    made.id = stepId();
    made.kind = kind;
    if (kind == u"start"_s) {
        made.projectPath = projectPath;
        made.prompt = QString();
        made.providerId = providerId.value_or(QString());
        made.permissionMode = providerId == u"codex"_s ? u"read-only"_s : u"dontAsk"_s;
        made.allowedTools = QStringList();
    } else if (kind == u"continue"_s) {
        made.target = u"trigger"_s;
        made.prompt = QString();
    } else if (kind == u"ask"_s) {
        made.question = QString();
        made.answers = QStringList{u"Approve"_s, u"Skip"_s};
        made.defaultAnswer = u"Skip"_s;
        made.timeoutMin = 10;
    } else if (kind == u"shell"_s) {
        made.projectPath = projectPath;
        made.command = QString();
        made.timeoutSec = 60;
    } else {
        made.text = QString();
        made.glasses = false;
    }
    if (before && before->kind == u"ask"_s && before->answers && !before->answers->isEmpty())
        made.guard = WFGuard{u"answer"_s, before->answers->first()};
    return made;
}

WFOutput output(const QString& kind)
{
    WFOutput made;
    made.id = outputId();
    made.kind = kind;
    if (kind == u"notify"_s)
        made.glasses = false;
    else if (kind == u"webhook"_s)
        made.preset = u"ntfy"_s;
    else if (kind == u"file"_s)
        made.path = QString();
    return made;
}

} // namespace NewRecords
