#pragma once

#include <QImage>
#include <QQuickPaintedItem>
#include <QString>

/// The QR code of `text`, dark modules on the light ground with a quiet zone,
/// drawn into the largest square the item holds without smoothing. The image
/// is made once per text and kept until the text changes.
class QRCodeView : public QQuickPaintedItem
{
    Q_OBJECT
    Q_PROPERTY(QString text READ text WRITE setText NOTIFY textChanged)

public:
    explicit QRCodeView(QQuickItem* parent = nullptr);

    /// One pixel per module, the quiet zone included; a null image when the text can't be encoded.
    static QImage encode(const QString& text);
    /// Makes the type known to the views as Tidewatch 1.0's QRCodeView.
    static void registerType();

    const QString& text() const { return m_text; }
    void setText(const QString& text);
    /// The text the held image was made from.
    const QString& shownText() const { return m_shownText; }

    void paint(QPainter* painter) override;

Q_SIGNALS:
    void textChanged();

private:
    QString m_text;
    QString m_shownText;
    QImage m_image;
};
