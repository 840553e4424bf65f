#include "Fixture.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

namespace Fixture {

QDateTime now()
{
    return QDateTime::fromMSecsSinceEpoch(kNowMs, Qt::UTC);
}

FlexDate at(double seconds)
{
    return FlexDate{kNowMs + qint64(seconds * 1000)};
}

QJsonValue json(const QByteArray& written)
{
    QByteArray text = written;
    qsizetype i;
    while ((i = text.indexOf("\"@")) >= 0) {
        const qsizetype end = text.indexOf('"', i + 2);
        const double offset = text.mid(i + 2, end - i - 2).toDouble();
        text.replace(i, end - i + 1, QByteArray::number(kNowMs + qint64(offset * 1000)));
    }
    // Wrapped so that a bare value parses as well as an object.
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson("[" + text + "]", &error);
    if (error.error != QJsonParseError::NoError)
        qFatal("bad test JSON (%s): %s", qPrintable(error.errorString()), written.constData());
    return document.array().at(0);
}

void undecodable(const QByteArray& text)
{
    qFatal("the fixture doesn't decode: %s", text.constData());
}

QByteArray sample(const QString& name)
{
    QFile file(QStringLiteral(TIDEWATCH_TEST_DATA "/") + name);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("missing sample %s", qPrintable(name));
    return file.readAll();
}

} // namespace Fixture
