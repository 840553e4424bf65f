#include "link/PairStart.h"

using namespace Qt::StringLiterals;

std::optional<PairStart> PairStart::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<QString> link = fields->string("link"_L1);
    if (!link)
        return std::nullopt;
    PairStart start;
    start.code = fields->string("code"_L1);
    start.link = std::move(*link);
    start.expiresAt = fields->date("expiresAt"_L1);
    start.url = fields->string("url"_L1);
    return start;
}
