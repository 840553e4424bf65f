#include "link/GuideState.h"

using namespace Qt::StringLiterals;

std::optional<GuideState> GuideState::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<QString> step = fields->string("step"_L1);
    const std::optional<bool> seen = fields->boolean("seen"_L1);
    const std::optional<bool> done = fields->boolean("done"_L1);
    if (!step || !seen || !done)
        return std::nullopt;
    return GuideState{std::move(*step), *seen, *done};
}
