#include "surface/QRCodeView.h"

#include <QPainter>
#include <QtQml/qqml.h>

#include <qrencode.h>

#include <cmath>
#include <memory>

namespace {

constexpr QRgb kDark = 0xFF14110E;
constexpr QRgb kLight = 0xFFF5F2EB;
/// Modules of light ground around the code, as readers expect.
constexpr int kQuietZone = 4;
/// Far beyond any pair link; QR's own ceiling is under 3 KB.
constexpr qsizetype kMaxBytes = 2048;

} // namespace

QRCodeView::QRCodeView(QQuickItem* parent)
    : QQuickPaintedItem(parent)
{
    setAntialiasing(false);
    setSmooth(false);
}

void QRCodeView::registerType()
{
    qmlRegisterType<QRCodeView>("Tidewatch", 1, 0, "QRCodeView");
}

QImage QRCodeView::encode(const QString& text)
{
    const QByteArray bytes = text.toUtf8();
    if (bytes.isEmpty() || bytes.size() > kMaxBytes)
        return {};
    const std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
        QRcode_encodeData(
            int(bytes.size()), reinterpret_cast<const unsigned char*>(bytes.constData()), 0, QR_ECLEVEL_M),
        &QRcode_free);
    if (!code)
        return {};
    const int modules = code->width;
    const int side = modules + 2 * kQuietZone;
    QImage image(side, side, QImage::Format_RGB32);
    image.fill(kLight);
    for (int y = 0; y < modules; ++y) {
        for (int x = 0; x < modules; ++x) {
            // The lowest bit of each byte is the module's colour; the others say what part of the code it is.
            if (code->data[y * modules + x] & 1)
                image.setPixel(x + kQuietZone, y + kQuietZone, kDark);
        }
    }
    return image;
}

void QRCodeView::setText(const QString& text)
{
    if (text == m_text)
        return;
    m_text = text;
    Q_EMIT textChanged();
    update();
}

void QRCodeView::paint(QPainter* painter)
{
    if (m_shownText != m_text) {
        m_image = encode(m_text);
        m_shownText = m_text;
    }
    if (m_image.isNull())
        return;
    // Whole pixels per module keep every module the same size and its edges sharp.
    const qreal available = std::min(width(), height());
    const int scale = std::max(1, int(std::floor(available / m_image.width())));
    const int side = scale * m_image.width();
    const QRect target(int((width() - side) / 2), int((height() - side) / 2), side, side);
    painter->setRenderHint(QPainter::SmoothPixmapTransform, false);
    painter->drawImage(target, m_image);
}
