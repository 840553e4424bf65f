#include "surface/linux/TrayStatusButton.h"

#include <QGuiApplication>
#include <QPainter>
#include <QPalette>
#include <QPixmap>

namespace {

// Template images are black; a tray wants them in the colour of the panel's text.
QPixmap tinted(const QImage& image, const QColor& ink)
{
    QImage copy = image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    QPainter painter(&copy);
    painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
    painter.fillRect(copy.rect(), ink);
    painter.end();
    return QPixmap::fromImage(copy);
}

} // namespace

std::unique_ptr<StatusButton> StatusButton::create(const QString& /*autosaveName*/)
{
    return std::make_unique<TrayStatusButton>();
}

TrayStatusButton::TrayStatusButton(QObject* parent)
    : StatusButton(parent)
{
    connect(&m_tray, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::Context)
            Q_EMIT clicked(m_tray.geometry());
    });
}

QIcon TrayStatusButton::iconFor(const MenuBarFrames::Frame& frame, const MenuBarFrames::Image& image)
{
    const QString key = frame.name();
    if (const auto found = m_icons.constFind(key); found != m_icons.constEnd())
        return *found;
    const QColor ink = QGuiApplication::palette().color(QPalette::WindowText);
    QIcon icon;
    icon.addPixmap(tinted(image.normal, ink));
    icon.addPixmap(tinted(image.retina, ink));
    m_icons.insert(key, icon);
    return icon;
}

void TrayStatusButton::setImage(const MenuBarFrames::Frame& frame, const MenuBarFrames::Image& image)
{
    m_tray.setIcon(iconFor(frame, image));
    if (!m_tray.isVisible())
        m_tray.show();
}

void TrayStatusButton::setTitle(const QString& /*title*/)
{
}

void TrayStatusButton::setLabel(const QString& label)
{
    m_tray.setToolTip(label);
}

void TrayStatusButton::setHighlighted(bool /*highlighted*/)
{
}

void TrayStatusButton::setWide(bool /*wide*/)
{
}

QRect TrayStatusButton::place() const
{
    return m_tray.isVisible() && QSystemTrayIcon::isSystemTrayAvailable() ? m_tray.geometry() : QRect();
}
