#include "link/SttState.h"

using namespace Qt::StringLiterals;

std::optional<SttState> SttState::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    const std::optional<bool> ready = fields->boolean("ready"_L1);
    if (!ready)
        return std::nullopt;
    SttState state;
    state.provider = fields->string("provider"_L1);
    state.ready = *ready;
    state.error = fields->string("error"_L1);
    state.last4 = fields->string("last4"_L1);
    return state;
}
