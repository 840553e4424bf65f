#include "surface/MenuBarFrames.h"

#include <QPainter>
#include <QPainterPath>
#include <QRadialGradient>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace {

constexpr double kPi = std::numbers::pi;

// The planet's box inside the 18-point image, and its line.
constexpr double kBoxX = 1.5;
constexpr double kBoxY = 1.5;
constexpr double kBoxWidth = 15;
constexpr double kLine = 1.2;

QColor withAlpha(QColor ink, double alpha)
{
    ink.setAlphaF(float(std::clamp(alpha, 0.0, 1.0)));
    return ink;
}

QPen pen(QColor ink, double alpha)
{
    QPen line(withAlpha(ink, alpha), kLine);
    line.setCapStyle(Qt::FlatCap);
    return line;
}

MenuBarFrames::Image both(double theta, double alpha, bool hollow, bool badge)
{
    return {MenuBarFrames::draw(MenuBarFrames::points, theta, alpha, hollow, badge),
        MenuBarFrames::draw(MenuBarFrames::points * 2, theta, alpha, hollow, badge)};
}

} // namespace

QString MenuBarFrames::Frame::name() const
{
    switch (kind) {
    case Kind::Hollow:
        return QStringLiteral("hollow");
    case Kind::Spin:
    case Kind::Breath:
        break;
    }
    const QString base = kind == Kind::Spin ? QStringLiteral("spin") : QStringLiteral("breath");
    return base + u'-' + QString::number(index) + (badge ? QStringLiteral("-badge") : QString());
}

MenuBarFrames& MenuBarFrames::shared()
{
    static MenuBarFrames frames;
    return frames;
}

double MenuBarFrames::spinRotation(int index)
{
    return kPi / 4 + (double(index) / spinCount) * (kPi / 2);
}

double MenuBarFrames::breathAlpha(int index)
{
    return 1 - 0.55 * (0.5 - 0.5 * std::cos(index * 2 * kPi / breathCount));
}

const MenuBarFrames::Image& MenuBarFrames::image(const Frame& frame)
{
    const auto wrap = [](int index, int count) { return ((index % count) + count) % count; };
    switch (frame.kind) {
    case Frame::Kind::Hollow:
        if (!m_hollow)
            m_hollow = both(0, 1, true, false);
        return *m_hollow;
    case Frame::Kind::Spin:
        if (!m_spin) {
            QList<Image> set;
            for (bool badge : {false, true}) {
                for (int i = 0; i < spinCount; ++i)
                    set << both(spinRotation(i), 1, false, badge);
            }
            m_spin = std::move(set);
        }
        return (*m_spin)[wrap(frame.index, spinCount) + (frame.badge ? spinCount : 0)];
    case Frame::Kind::Breath:
        if (!m_breath) {
            QList<Image> set;
            for (bool badge : {false, true}) {
                for (int i = 0; i < breathCount; ++i)
                    set << both(kPi / 4, breathAlpha(i), false, badge);
            }
            m_breath = std::move(set);
        }
        return (*m_breath)[wrap(frame.index, breathCount) + (frame.badge ? breathCount : 0)];
    }
    Q_UNREACHABLE();
}

QList<MenuBarFrames::Frame> MenuBarFrames::all()
{
    QList<Frame> frames;
    for (bool badge : {false, true}) {
        for (int i = 0; i < spinCount; ++i)
            frames << Frame::spin(i, badge);
    }
    for (bool badge : {false, true}) {
        for (int i = 0; i < breathCount; ++i)
            frames << Frame::breath(i, badge);
    }
    frames << Frame::hollow();
    return frames;
}

void MenuBarFrames::paintPlanet(QPainter& painter, double theta, double alpha, bool hollow, QColor ink)
{
    const double r = kBoxWidth / 2 - kLine / 2;
    const QPointF centre(kBoxX + kBoxWidth / 2, kBoxY + kBoxWidth / 2);

    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    if (hollow) {
        painter.setPen(pen(ink, 0.75));
        painter.setBrush(Qt::NoBrush);
        painter.drawEllipse(centre, r, r);
        painter.restore();
        return;
    }

    QPainterPath disc;
    disc.addEllipse(centre, r, r);
    painter.save();
    painter.setClipPath(disc);

    // Lit from the upper left; the pad spread keeps the last stop's faint
    // shade out to the far rim instead of ending in a hard edge.
    const double offset = r * 0.7071 * 0.64;
    QRadialGradient light(centre - QPointF(offset, offset), r * 1.7);
    light.setSpread(QGradient::PadSpread);
    light.setColorAt(0, withAlpha(ink, alpha * 0.8));
    light.setColorAt(0.5, withAlpha(ink, alpha * 0.24));
    light.setColorAt(1, withAlpha(ink, alpha * 0.05));
    painter.fillPath(disc, light);

    painter.setBrush(Qt::NoBrush);
    for (int k = 0; k < 4; ++k) {
        const double phi = theta + k * kPi / 2;
        const double facing = std::cos(phi);
        // A meridian on the far side, or edge-on at the rim, isn't drawn.
        if (facing <= 0.05)
            continue;
        const double s = r * std::sin(phi);
        const double base = std::clamp(0.55 - 0.35 * s / r, 0.1, 0.9);
        // A meridian seen edge-on keeps a sliver of width rather than vanishing.
        const double halfWidth = std::max(kLine * 0.25, std::abs(s));
        // The squeeze goes into the path, not the painter, so the line keeps its width.
        const QRectF oval(centre.x() - halfWidth, centre.y() - r, 2 * halfWidth, 2 * r);
        QPainterPath meridian;
        const double start = s >= 0 ? 90 : 270;
        meridian.arcMoveTo(oval, start);
        meridian.arcTo(oval, start, -180);
        painter.setPen(pen(ink, alpha * std::min(facing * base * 1.1, 1.0)));
        painter.drawPath(meridian);
    }
    painter.restore();

    // The rim is stroked unclipped: the disc's radius leaves room for its outer half.
    painter.setPen(pen(ink, alpha * 0.42));
    painter.drawEllipse(centre, r, r);
    painter.restore();
}

QImage MenuBarFrames::draw(int pixels, double theta, double alpha, bool hollow, bool badge, QColor ink)
{
    QImage image(pixels, pixels, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.scale(double(pixels) / points, double(pixels) / points);
    paintPlanet(painter, theta, alpha, hollow, ink);
    if (badge) {
        // The hole keeps the dot readable against the meridians behind it.
        painter.setPen(Qt::NoPen);
        painter.setCompositionMode(QPainter::CompositionMode_Clear);
        painter.setBrush(Qt::black);
        painter.drawEllipse(QRectF(10.3, -0.9, 8.6, 8.6));
        painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
        painter.setBrush(withAlpha(ink, 1));
        painter.drawEllipse(QRectF(11.8, 0.6, 5.6, 5.6));
    }
    painter.end();
    return image;
}
