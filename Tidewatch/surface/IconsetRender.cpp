#include "surface/IconsetRender.h"

#include "surface/MenuBarFrames.h"

#include <QDir>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QRadialGradient>

#include <cstdio>
#include <numbers>

using namespace Qt::StringLiterals;

namespace {

// The card fills the system's icon grid: 824 of 1024 with rounded corners.
constexpr double kCardInset = 100.0 / 1024;
constexpr double kCornerRadius = 185.0 / 1024;
// The planet's 18-point drawing fills this share of the card.
constexpr double kPlanetShare = 0.66;

void fail(const QString& why)
{
    const QByteArray line = (u"render failed: "_s + why + u'\n').toLocal8Bit();
    std::fputs(line.constData(), stdout);
    std::fflush(stdout);
}

} // namespace

QList<IconsetEntry> iconsetEntries()
{
    QList<IconsetEntry> entries;
    for (int size : {16, 32, 128, 256, 512}) {
        const QString base = u"icon_%1x%1"_s.arg(size);
        entries << IconsetEntry{base + u".png"_s, size} << IconsetEntry{base + u"@2x.png"_s, size * 2};
    }
    return entries;
}

QImage applicationIcon(int pixels)
{
    QImage image(pixels, pixels, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);

    const double inset = pixels * kCardInset;
    const QRectF card(inset, inset, pixels - 2 * inset, pixels - 2 * inset);
    QPainterPath shape;
    shape.addRoundedRect(card, pixels * kCornerRadius, pixels * kCornerRadius);
    QLinearGradient depth(card.topLeft(), card.bottomLeft());
    depth.setColorAt(0, QColor(0x22, 0x1F, 0x1B));
    depth.setColorAt(1, QColor(0x0F, 0x0D, 0x0A));
    painter.fillPath(shape, depth);

    // A faint green glow behind the planet, the colour of work going on.
    QRadialGradient glow(card.center(), card.width() * 0.45);
    glow.setColorAt(0, QColor(0x7F, 0xFF, 0xA0, 46));
    glow.setColorAt(1, QColor(0x7F, 0xFF, 0xA0, 0));
    painter.save();
    painter.setClipPath(shape);
    painter.fillRect(card, glow);
    painter.restore();

    const double side = card.width() * kPlanetShare;
    painter.save();
    painter.translate(card.center() - QPointF(side / 2, side / 2));
    painter.scale(side / MenuBarFrames::points, side / MenuBarFrames::points);
    MenuBarFrames::paintPlanet(painter, std::numbers::pi / 4, 1, false, QColor(0xF5, 0xF2, 0xEB));
    painter.restore();

    painter.setPen(QPen(QColor(255, 255, 255, 28), qMax(1.0, pixels / 512.0)));
    painter.drawPath(shape);
    painter.end();
    return image;
}

int renderIconset(const QString& folder)
{
    if (folder.isEmpty() || !QDir().mkpath(folder)) {
        fail(u"Couldn’t make the folder %1."_s.arg(folder));
        return 1;
    }
    const QDir into(folder);
    for (const IconsetEntry& entry : iconsetEntries()) {
        const QString path = into.filePath(entry.fileName);
        if (!applicationIcon(entry.pixels).save(path, "PNG")) {
            fail(u"Couldn’t write %1."_s.arg(path));
            return 1;
        }
    }
    return 0;
}
