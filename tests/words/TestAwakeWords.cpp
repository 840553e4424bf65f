#include "awake/AwakeWords.h"
#include "link/Awake.h"

#include "Fixture.h"
#include "GoldenTest.h"

#include <limits>

using namespace Qt::StringLiterals;

namespace {

const QString kNone = u"—"_s;

QString said(const QString& what)
{
    const auto mode = [](Awake::Mode m) { return AwakeWords::modeTitle(m) + u" | "_s + AwakeWords::modeHelp(m); };
    if (what == u"off"_s)
        return mode(Awake::Mode::Off);
    if (what == u"working"_s)
        return mode(Awake::Mode::Working);
    if (what == u"backpack"_s)
        return mode(Awake::Mode::Backpack);
    if (what == u"minBattery"_s)
        return AwakeWords::minBatteryCaption();
    if (what.startsWith(u"permission"_s))
        return AwakeWords::permissionCaption(what.endsWith(u"set up"_s));
    if (what == u"settings"_s)
        return AwakeWords::settingsCaption();
    const BackpackOffer offer = AwakeWords::backpackOffer(what.section(u' ', 1).toLongLong());
    return QStringList{offer.title, offer.body, offer.enable, offer.enableBusy, offer.decline}.join(u" | "_s);
}

QString render(const QString& section, const QStringList& in)
{
    if (section == u"duration"_s) {
        const double seconds = in.at(0) == u"nan"_s ? std::numeric_limits<double>::quiet_NaN() : in.at(0).toDouble();
        return AwakeWords::duration(seconds);
    }
    if (section == u"said"_s)
        return said(in.at(0));
    const Awake awake = Fixture::record<Awake>(in.at(0).toUtf8());
    if (section == u"extend"_s)
        return AwakeWords::extendLabel(awake, Fixture::now()).value_or(kNone);
    if (section == u"phrase"_s)
        return AwakeWords::phrase(awake, Fixture::now())
            + (AwakeWords::isHighlighted(awake) ? u" | highlighted"_s : u""_s);
    if (section == u"sentence"_s) {
        std::optional<Battery> battery;
        if (!in.value(1).isEmpty()) {
            battery = Battery{};
            battery->percent = in.at(1).toDouble();
        }
        const QLocale locale(in.value(2, u"en_US"_s));
        const std::optional<AwakeLine> line = AwakeWords::sentence(awake, Fixture::now(), battery, locale);
        return line ? line->text + (line->warn ? u" | warns"_s : u""_s) : kNone;
    }
    if (section == u"minBattery"_s) {
        const MinBatteryControl control = AwakeWords::minBatteryControl(awake.minBattery);
        return control.text + u" |"_s + (control.canRaise ? u" +"_s : u""_s) + (control.canLower ? u" −"_s : u""_s);
    }
    if (section == u"setUp"_s)
        return AwakeWords::backpackSetUp(awake, in.value(1) == u"rule file"_s) ? u"set up"_s : u"not set up"_s;
    return u"no words for the section "_s + section;
}

} // namespace

int main(int argc, char** argv)
{
    return GoldenTest::main(argc, argv, {u"awake-words.txt"_s}, render);
}
