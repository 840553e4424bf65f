#pragma once

#include "link/Lenient.h"

#include <QByteArray>
#include <QString>

#include <optional>

/// A paired phone or pair of glasses.
struct Device {
    /// When the glasses were linked through this phone, last seen, and unlinked.
    struct GlassesLink {
        std::optional<FlexDate> since;
        std::optional<FlexDate> seenAt;
        std::optional<FlexDate> removedAt;

        static std::optional<GlassesLink> fromJson(const QJsonValue& value);
        bool operator==(const GlassesLink&) const = default;
    };

    QString id;
    std::optional<QString> name;
    std::optional<QString> model;
    std::optional<QString> appVersion;
    std::optional<FlexDate> createdAt;
    std::optional<FlexDate> lastSeenAt;
    /// "lens" for the glasses.
    std::optional<QString> client;
    std::optional<QString> via;
    std::optional<GlassesLink> glasses;

    /// None when it isn't an object or has no string id.
    static std::optional<Device> fromJson(const QJsonValue& value);
    bool operator==(const Device&) const = default;
};

/// The reply of GET /local/devices: a bare array of devices, or an object with
/// them under "devices". None when the bytes aren't JSON.
std::optional<FlexList<Device>> decodeDeviceList(const QByteArray& body);
