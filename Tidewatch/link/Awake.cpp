#include "link/Awake.h"

using namespace Qt::StringLiterals;

QString awakeModeName(Awake::Mode mode)
{
    switch (mode) {
    case Awake::Mode::Working:
        return QStringLiteral("working");
    case Awake::Mode::Backpack:
        return QStringLiteral("backpack");
    case Awake::Mode::Off:
        return QStringLiteral("off");
    }
    return QStringLiteral("working");
}

std::optional<Awake::Mode> awakeModeFromName(QStringView name)
{
    if (name == u"working")
        return Awake::Mode::Working;
    if (name == u"backpack")
        return Awake::Mode::Backpack;
    if (name == u"off")
        return Awake::Mode::Off;
    return std::nullopt;
}

std::optional<Awake> Awake::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    const std::optional<QString> modeName = fields->string("mode"_L1);
    const std::optional<Mode> mode = modeName ? awakeModeFromName(*modeName) : std::nullopt;
    if (!mode)
        return std::nullopt;
    Awake awake;
    awake.mode = *mode;
    awake.holding = fields->boolean("holding"_L1).value_or(false);
    awake.lidClosedOk = fields->boolean("lidClosedOk"_L1).value_or(false);
    awake.backpackReady = fields->boolean("backpackReady"_L1).value_or(false);
    awake.until = fields->date("until"_L1);
    awake.reason = fields->string("reason"_L1);
    awake.sleepAt = fields->date("sleepAt"_L1);
    awake.lidClosed = fields->boolean("lidClosed"_L1);
    awake.laptop = fields->boolean("laptop"_L1).value_or(false);
    awake.minBattery = fields->integer("minBattery"_L1).value_or(15);
    awake.sleepDisabledBy = fields->string("sleepDisabledBy"_L1);
    awake.otherApp = fields->string("otherApp"_L1);
    awake.extendable = fields->boolean("extendable"_L1).value_or(false);
    return awake;
}
