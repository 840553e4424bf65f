#pragma once

#include <QColor>
#include <QImage>
#include <QList>
#include <QString>

#include <optional>

class QPainter;

/// The 37 finished images of the menu bar's planet: 10 spin frames and 10
/// badged, 8 breathing frames and 8 badged, and the hollow ring. Each is a
/// template image of 18 points, held at 18 and 36 pixels, drawn in black on
/// transparent so the system (or the tray) can tint it. A set is drawn the
/// first time one of its images is asked for and never again.
class MenuBarFrames
{
public:
    static constexpr int spinCount = 10;
    static constexpr int breathCount = 8;
    /// The image's size in points.
    static constexpr int points = 18;

    /// Names one image.
    struct Frame {
        enum class Kind { Spin, Breath, Hollow };

        Kind kind = Kind::Spin;
        int index = 0;
        bool badge = false;

        static Frame spin(int index, bool badge) { return {Kind::Spin, index, badge}; }
        static Frame breath(int index, bool badge) { return {Kind::Breath, index, badge}; }
        static Frame hollow() { return {Kind::Hollow, 0, false}; }

        /// "spin-0", "breath-3-badge", "hollow": how renders and checks name it.
        QString name() const;

        bool operator==(const Frame&) const = default;
    };

    /// One template image at both of its pixel sizes.
    struct Image {
        /// 18 by 18 pixels.
        QImage normal;
        /// 36 by 36 pixels, drawn at that size rather than scaled up.
        QImage retina;
    };

    /// The process's one set; main thread only.
    static MenuBarFrames& shared();

    /// The image a frame names. An index out of its set's range is taken modulo the set.
    const Image& image(const Frame& frame);

    /// Every frame, in the order spin, spin badged, breath, breath badged, hollow.
    static QList<Frame> all();

    /// Draws one planet into `pixels` square pixels: `theta` turns the
    /// meridians, `alpha` dims all but the badge. Used for the frames and
    /// for the application's icon at other sizes and colours.
    static QImage draw(int pixels, double theta, double alpha, bool hollow, bool badge, QColor ink = Qt::black);
    /// The planet alone, drawn by `painter` in a coordinate system of 18 units.
    static void paintPlanet(QPainter& painter, double theta, double alpha, bool hollow, QColor ink);

    /// The spin frame's rotation and the breathing frame's alpha.
    static double spinRotation(int index);
    static double breathAlpha(int index);

private:
    MenuBarFrames() = default;

    // Lists of plain then badged images.
    std::optional<QList<Image>> m_spin;
    std::optional<QList<Image>> m_breath;
    std::optional<Image> m_hollow;
};
