#include "surface/words/DeviceWords.h"

#include "text/Machine.h"

using namespace Qt::StringLiterals;

namespace DeviceWords {

namespace {

bool named(const std::optional<QString>& text)
{
    return text && !text->trimmed().isEmpty();
}

} // namespace

Row row(const Device& device, const QList<Device>& devices)
{
    Row row;
    row.id = device.id;
    row.glasses = device.client == u"lens"_s;
    if (named(device.name))
        row.name = device.name->trimmed();
    else if (named(device.model))
        row.name = device.model->trimmed();
    else
        row.name = row.glasses ? u"Glasses"_s : u"A phone"_s;
    if (row.glasses && named(device.via)) {
        QString phone = *device.via;
        for (const Device& other : devices) {
            if (other.id == *device.via && named(other.name))
                phone = other.name->trimmed();
        }
        row.via = u"through "_s + phone;
    }
    return row;
}

Forget forget(const Row& row)
{
    return {u"Forget "_s + row.name,
        row.glasses ? u"They can’t reach %1 until they’re connected again."_s.arg(machine::thisMachine())
                    : u"It can’t reach %1 until it pairs again."_s.arg(machine::thisMachine()),
        u"Its token stops working at once, on Tailscale and on the local network. Glasses that come through it stop "
        "too."_s,
        u"Keep"_s, u"Forget"_s};
}

QString heading()
{
    return u"Phones and glasses"_s;
}

QString none()
{
    return u"No phone is paired yet."_s;
}

} // namespace DeviceWords
