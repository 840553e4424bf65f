#include "surface/MenuBarFrames.h"

#include <QSet>
#include <QTest>

#include <cmath>

using Frame = MenuBarFrames::Frame;

Q_DECLARE_METATYPE(MenuBarFrames::Frame)

namespace {

int alphaAt(const QImage& image, double x, double y)
{
    return qAlpha(image.pixel(int(x), int(y)));
}

// The box average of a 36-pixel image, for comparing with its 18-pixel twin.
QImage halved(const QImage& image)
{
    QImage half(image.width() / 2, image.height() / 2, QImage::Format_ARGB32);
    for (int y = 0; y < half.height(); ++y) {
        for (int x = 0; x < half.width(); ++x) {
            int sum = 0;
            for (int dy : {0, 1}) {
                for (int dx : {0, 1})
                    sum += qAlpha(image.pixel(2 * x + dx, 2 * y + dy));
            }
            half.setPixel(x, y, qRgba(0, 0, 0, (sum + 2) / 4));
        }
    }
    return half;
}

struct Gap {
    int largest = 0;
    double mean = 0;
};

// How far two images of one size differ in alpha, at most and on average.
Gap gapOf(const QImage& a, const QImage& b)
{
    Gap gap;
    for (int y = 0; y < a.height(); ++y) {
        for (int x = 0; x < a.width(); ++x) {
            const int one = std::abs(qAlpha(a.pixel(x, y)) - qAlpha(b.pixel(x, y)));
            gap.largest = std::max(gap.largest, one);
            gap.mean += one;
        }
    }
    gap.mean /= a.width() * a.height();
    return gap;
}

// Inside the badge's cleared ring at 36 pixels, clear of its antialiased edges.
bool inClearedRing(int x, int y)
{
    const double d = std::hypot(x + 0.5 - 29.2, y + 0.5 - 6.8);
    return d > 5.6 + 0.8 && d < 8.6 - 0.8;
}

bool nearBadge(int x, int y)
{
    return std::hypot(x + 0.5 - 29.2, y + 0.5 - 6.8) < 8.6 + 1.5;
}

} // namespace

class TestMenuBarFrames : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyFrameIsANamedBlackTemplateInItsBox();
    void spinFramesAllDifferAndLoopWithoutASeam();
    void theDiscIsLitFromTheUpperLeft();
    void theRingIsHollow();
    void theBadge_data();
    void theBadge();
    void breathingDimsThePlanetButNotTheDot_data();
    void breathingDimsThePlanetButNotTheDot();
    void theRetinaImageIsDrawnNotScaled_data();
    void theRetinaImageIsDrawnNotScaled();
};

void TestMenuBarFrames::everyFrameIsANamedBlackTemplateInItsBox()
{
    QSet<QString> names;
    for (const Frame& frame : MenuBarFrames::all()) {
        // Every frame by a name of its own: the animator picks them by name.
        QVERIFY2(!names.contains(frame.name()), qPrintable(frame.name()));
        names.insert(frame.name());
        const MenuBarFrames::Image& image = MenuBarFrames::shared().image(frame);
        QCOMPARE(image.normal.size(), QSize(18, 18));
        QCOMPARE(image.retina.size(), QSize(36, 36));
        for (const QImage* picture : {&image.normal, &image.retina}) {
            bool anyInk = false;
            for (int y = 0; y < picture->height(); ++y) {
                for (int x = 0; x < picture->width(); ++x) {
                    const QRgb pixel = picture->pixel(x, y);
                    // The system tints a template by its alpha alone; colour would be lost.
                    QVERIFY2(qRed(pixel) == 0 && qGreen(pixel) == 0 && qBlue(pixel) == 0, qPrintable(frame.name()));
                    anyInk = anyInk || qAlpha(pixel) > 0;
                }
            }
            QVERIFY2(anyInk, qPrintable(frame.name()));
        }
        // The planet's box is 1.5 points in from each edge; only the badge reaches the corner.
        for (int i = 0; i < 36; ++i) {
            for (const QPoint& p : {QPoint(i, 35), QPoint(0, i), QPoint(i, 0), QPoint(35, i)}) {
                QVERIFY2(alphaAt(image.retina, p.x(), p.y()) == 0 || (frame.badge && nearBadge(p.x(), p.y())),
                    qPrintable(frame.name() + QStringLiteral(" at %1,%2").arg(p.x()).arg(p.y())));
            }
        }
    }
    // An index past the set wraps instead of reading outside it.
    QCOMPARE(MenuBarFrames::shared().image(Frame::spin(13, true)).retina,
        MenuBarFrames::shared().image(Frame::spin(3, true)).retina);
}

void TestMenuBarFrames::spinFramesAllDifferAndLoopWithoutASeam()
{
    for (int i = 0; i < MenuBarFrames::spinCount; ++i) {
        for (int j = i + 1; j < MenuBarFrames::spinCount; ++j) {
            const QImage& a = MenuBarFrames::shared().image(Frame::spin(i, false)).retina;
            const QImage& b = MenuBarFrames::shared().image(Frame::spin(j, false)).retina;
            // The meridians move: a clear difference somewhere, not rounding noise.
            QVERIFY2(gapOf(a, b).largest > 40, qPrintable(QStringLiteral("spin %1 and %2").arg(i).arg(j)));
        }
    }
    // Four meridians look the same after a quarter turn, so the frame after
    // the last is the first again and the loop has no seam.
    const QImage next = MenuBarFrames::draw(36, MenuBarFrames::spinRotation(MenuBarFrames::spinCount), 1, false, false);
    QVERIFY(gapOf(next, MenuBarFrames::shared().image(Frame::spin(0, false)).retina).largest <= 2);
}

void TestMenuBarFrames::theDiscIsLitFromTheUpperLeft()
{
    // Two points between the meridians of the rest frame, mirrored through the centre.
    const QImage& rest = MenuBarFrames::shared().image(Frame::spin(0, false)).retina;
    const int upperLeft = alphaAt(rest, 14, 14);
    const int lowerRight = alphaAt(rest, 22, 22);
    QVERIFY2(upperLeft > 2 * lowerRight, qPrintable(QStringLiteral("%1 vs %2").arg(upperLeft).arg(lowerRight)));
    // The far side still shows a little: the gradient keeps its last stop past its end.
    QVERIFY(alphaAt(rest, 27, 27) > 0);
}

void TestMenuBarFrames::theRingIsHollow()
{
    const QImage& ring = MenuBarFrames::shared().image(Frame::hollow()).retina;
    // Everything well inside the ring's line is empty.
    for (int y = 0; y < 36; ++y) {
        for (int x = 0; x < 36; ++x) {
            if (std::hypot(x + 0.5 - 18, y + 0.5 - 18) < 11.5)
                QCOMPARE(alphaAt(ring, x, y), 0);
        }
    }
    // The ring itself at 0.75, full width at 2x: its strongest pixel on the middle row.
    int strongest = 0;
    for (int x = 28; x < 36; ++x)
        strongest = std::max(strongest, alphaAt(ring, x, 18));
    QVERIFY2(strongest >= 150 && strongest <= 200, qPrintable(QString::number(strongest)));
}

void TestMenuBarFrames::theBadge_data()
{
    QTest::addColumn<Frame>("plain");
    QTest::addColumn<Frame>("badged");

    QTest::newRow("the rest frame") << Frame::spin(0, false) << Frame::spin(0, true);
    QTest::newRow("a spin frame mid-cycle") << Frame::spin(6, false) << Frame::spin(6, true);
    QTest::newRow("the dimmest breath") << Frame::breath(4, false) << Frame::breath(4, true);
}

void TestMenuBarFrames::theBadge()
{
    QFETCH(Frame, plain);
    QFETCH(Frame, badged);
    const QImage& before = MenuBarFrames::shared().image(plain).retina;
    const QImage& after = MenuBarFrames::shared().image(badged).retina;

    int ringPixelsOverPlanet = 0;
    for (int y = 0; y < 36; ++y) {
        for (int x = 0; x < 36; ++x) {
            if (inClearedRing(x, y)) {
                // The hole is punched through the planet, not just painted over.
                QCOMPARE(alphaAt(after, x, y), 0);
                ringPixelsOverPlanet += alphaAt(before, x, y) > 0 ? 1 : 0;
            } else if (!nearBadge(x, y)) {
                QCOMPARE(after.pixel(x, y), before.pixel(x, y));
            }
        }
    }
    QVERIFY(ringPixelsOverPlanet > 5);
    // The dot is opaque at its centre, upper right.
    QCOMPARE(alphaAt(after, 29, 6), 255);
    QCOMPARE(alphaAt(MenuBarFrames::shared().image(badged).normal, 14, 3), 255);
}

void TestMenuBarFrames::breathingDimsThePlanetButNotTheDot_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<double>("alpha");

    QTest::newRow("the first breath is the full planet") << 0 << 1.0;
    QTest::newRow("a quarter through") << 2 << 0.725;
    QTest::newRow("the middle is dimmest, at 0.45") << 4 << 0.45;
    QTest::newRow("the way back mirrors the way in") << 6 << 0.725;
}

void TestMenuBarFrames::breathingDimsThePlanetButNotTheDot()
{
    QFETCH(int, index);
    QFETCH(double, alpha);
    QCOMPARE(MenuBarFrames::breathAlpha(index), alpha);

    const QImage& full = MenuBarFrames::shared().image(Frame::spin(0, false)).retina;
    const QImage& breath = MenuBarFrames::shared().image(Frame::breath(index, true)).retina;
    // The breath holds the rest frame's pose: the same pixels, scaled by the alpha.
    const int lit = alphaAt(full, 14, 14);
    QVERIFY(qAbs(alphaAt(breath, 14, 14) - lit * alpha) <= 3);
    QCOMPARE(alphaAt(breath, 29, 6), 255);
}

void TestMenuBarFrames::theRetinaImageIsDrawnNotScaled_data()
{
    QTest::addColumn<Frame>("frame");

    QTest::newRow("the rest frame") << Frame::spin(0, false);
    QTest::newRow("a badged spin frame") << Frame::spin(7, true);
    QTest::newRow("the hollow ring") << Frame::hollow();
}

void TestMenuBarFrames::theRetinaImageIsDrawnNotScaled()
{
    QFETCH(Frame, frame);
    const MenuBarFrames::Image& image = MenuBarFrames::shared().image(frame);

    // Same geometry: the 36-pixel image averaged down is close to the 18-pixel one.
    const double gap = gapOf(halved(image.retina), image.normal.convertToFormat(QImage::Format_ARGB32)).mean;
    QVERIFY2(gap < 6, qPrintable(QString::number(gap)));

    // But not a copy blown up: a doubled image would be made of uniform 2x2 blocks,
    // and a smoothed one would carry the 18-pixel line's blur at twice its width.
    int mixedBlocks = 0;
    for (int y = 0; y < 36; y += 2) {
        for (int x = 0; x < 36; x += 2) {
            const int a = alphaAt(image.retina, x, y);
            if (a != alphaAt(image.retina, x + 1, y) || a != alphaAt(image.retina, x, y + 1))
                ++mixedBlocks;
        }
    }
    QVERIFY(mixedBlocks > 40);
    const QImage blown = image.normal.scaled(36, 36, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    QVERIFY(gapOf(blown, image.retina).mean > 3);
}

QTEST_GUILESS_MAIN(TestMenuBarFrames)
#include "TestMenuBarFrames.moc"
