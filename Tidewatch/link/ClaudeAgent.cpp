#include "link/ClaudeAgent.h"

using namespace Qt::StringLiterals;

std::optional<ClaudeAgent> ClaudeAgent::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    ClaudeAgent agent;
    agent.available = fields->boolean("available"_L1);
    agent.version = fields->string("version"_L1);
    return agent;
}
