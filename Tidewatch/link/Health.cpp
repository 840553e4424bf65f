#include "link/Health.h"

using namespace Qt::StringLiterals;

std::optional<Health> Health::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    Health health;
    health.ok = fields->boolean("ok"_L1);
    health.protocol = fields->integer("protocol"_L1);
    health.name = fields->string("name"_L1);
    return health;
}
