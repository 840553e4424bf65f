#include "text/Machine.h"
#include "text/TimeWords.h"

#include "Fixture.h"
#include "GoldenTest.h"

#include <limits>

using namespace Qt::StringLiterals;

namespace {

QString machineNoun(const QString& form)
{
    if (form == u"this"_s)
        return machine::thisMachine();
    if (form == u"This"_s)
        return machine::ThisMachine();
    if (form == u"this's"_s)
        return machine::thisMachines();
    if (form == u"your"_s)
        return machine::yourMachine();
    if (form == u"Your"_s)
        return machine::YourMachine();
    return machine::theMachine();
}

QString render(const QString& section, const QStringList& in)
{
    if (section == u"machine"_s)
        return machineNoun(in.at(0));
    if (section == u"timeOfDay"_s)
        return TimeWords::timeOfDay(Fixture::at(in.at(1).toDouble()), Fixture::now(), QLocale(in.at(0)));
    const double seconds = in.at(0) == u"nan"_s ? std::numeric_limits<double>::quiet_NaN() : in.at(0).toDouble();
    if (section == u"duration"_s)
        return TimeWords::durationWords(seconds);
    if (section == u"compact"_s)
        return TimeWords::compactDuration(seconds);
    if (section == u"age"_s)
        return TimeWords::coarseAge(seconds);
    return u"no words for the section "_s + section;
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"time-words.txt"_s, u"machine-words.txt"_s}, render);
}
