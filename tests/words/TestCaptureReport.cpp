#include "surface/words/CaptureReport.h"

#include "GoldenTest.h"

using namespace Qt::StringLiterals;

namespace {

QString render(const QString& section, const QStringList& in)
{
    if (section == u"statusItem"_s) {
        const QRect place
            = in.size() == 4 ? QRect(in.at(0).toInt(), in.at(1).toInt(), in.at(2).toInt(), in.at(3).toInt()) : QRect();
        return CaptureReport::statusItemLine(place);
    }
    if (section == u"popover"_s)
        return CaptureReport::popoverLine(in.at(0) == u"yes"_s);
    if (section == u"picture"_s)
        return CaptureReport::pictureLine(in.at(0), in.value(1));
    if (section == u"missingWindow"_s)
        return CaptureReport::missingWindowLine(in.at(0));
    return u"no words for the section "_s + section;
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"capture-report.txt"_s}, render);
}
