#pragma once

#include "link/Device.h"

#include <QList>
#include <QString>

#include <optional>

/// The Settings page's "Phones and glasses": one row a paired device, and
/// the question before one is forgotten.
namespace DeviceWords {

/// A `DeviceRow`: the device's name, and the phone its glasses come through.
struct Row {
    QString id;
    QString name;
    std::optional<QString> via;
    bool glasses = false;
    bool operator==(const Row&) const = default;
};

/// `devices` is the whole list, so that `via` can name the phone by its name.
Row row(const Device& device, const QList<Device>& devices);

/// The Forget dialog's words.
struct Forget {
    QString title;
    QString line;
    QString help;
    QString keep;
    QString forget;
    bool operator==(const Forget&) const = default;
};

Forget forget(const Row& row);

QString heading();
/// What the list says with no device paired.
QString none();

} // namespace DeviceWords
