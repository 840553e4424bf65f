#include "workflows/WorkflowWords.h"

#include "Fixture.h"
#include "GoldenTest.h"

#include <QJsonArray>

using namespace Qt::StringLiterals;

namespace {

QString render(const QString& section, const QStringList& in)
{
    if (section == u"clip"_s) {
        const QString text = Fixture::json("[" + in.at(1).toUtf8() + "]").toArray().at(0).toString();
        return WorkflowWords::clip(text, in.at(0).toInt());
    }
    if (section == u"countdown"_s) {
        WFAskItem ask;
        ask.defaultAnswer = in.value(1);
        ask.until = Fixture::at(in.at(0).toDouble());
        return WorkflowWords::countdown(ask, Fixture::now()).value_or(u"—"_s);
    }
    if (section == u"answer"_s) {
        const QString by = in.value(1);
        return WorkflowWords::answerWords(in.at(0), by.isEmpty() ? std::nullopt : std::optional<QString>(by));
    }
    if (section == u"already answered"_s)
        return WorkflowWords::alreadyAnswered(Fixture::maybe<WFRun>(in.value(0).toUtf8()));
    if (section == u"answer failure"_s) {
        const std::optional<QString> code = in.at(1).isEmpty() ? std::nullopt : std::optional<QString>(in.at(1));
        const QString run = in.value(3);
        const DaemonError error = run.isEmpty()
            ? DaemonError::server(in.at(0).toInt(), code, in.at(2))
            : DaemonError::detail(in.at(0).toInt(), code, in.at(2), std::nullopt, Fixture::json(run.toUtf8()));
        return WorkflowWords::answerFailure(error);
    }
    return u"no words for the section "_s + section;
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"workflow-words.txt"_s}, render);
}
