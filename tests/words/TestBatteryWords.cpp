#include "link/Battery.h"
#include "surface/words/BatteryWords.h"

#include "Fixture.h"
#include "GoldenTest.h"

using namespace Qt::StringLiterals;

namespace {

QString render(const QString& section, const QStringList& in)
{
    const Battery battery = Fixture::record<Battery>(in.at(0).toUtf8());
    if (section == u"notification"_s)
        return BatteryWords::notification(battery);
    if (section != u"line"_s)
        return u"no words for the section "_s + section;
    const std::optional<BatteryLine> line = BatteryWords::line(battery);
    if (!line)
        return u"—"_s;
    QStringList said{line->text, line->time};
    if (line->critical)
        said << u"critical"_s;
    return (said << line->help).join(u" | "_s);
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"battery-words.txt"_s}, render);
}
