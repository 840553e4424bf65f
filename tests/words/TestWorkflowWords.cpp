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
    return u"no words for the section "_s + section;
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"workflow-words.txt"_s}, render);
}
