#include "link/Device.h"

using namespace Qt::StringLiterals;

std::optional<Device::GlassesLink> Device::GlassesLink::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    GlassesLink link;
    link.since = fields->date("since"_L1);
    link.seenAt = fields->date("seenAt"_L1);
    link.removedAt = fields->date("removedAt"_L1);
    return link;
}

std::optional<Device> Device::fromJson(const QJsonValue& value)
{
    const std::optional<Lenient::Fields> fields = Lenient::Fields::open(value);
    if (!fields)
        return std::nullopt;
    std::optional<QString> id = fields->string("id"_L1);
    if (!id)
        return std::nullopt;
    Device device;
    device.id = std::move(*id);
    device.name = fields->string("name"_L1);
    device.model = fields->string("model"_L1);
    device.appVersion = fields->string("appVersion"_L1);
    device.createdAt = fields->date("createdAt"_L1);
    device.lastSeenAt = fields->date("lastSeenAt"_L1);
    device.client = fields->string("client"_L1);
    device.via = fields->string("via"_L1);
    device.glasses = fields->record<GlassesLink>("glasses"_L1);
    return device;
}

std::optional<FlexList<Device>> decodeDeviceList(const QByteArray& body)
{
    return decodeListDocument<Device>(body, "devices"_L1);
}
