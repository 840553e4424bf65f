#include "setup/NodeVersion.h"

#include <QStringList>

namespace {

// The leading run of digits, or -1 when the piece starts with anything else.
int leadingNumber(QStringView piece)
{
    qsizetype digits = 0;
    while (digits < piece.size() && piece.at(digits).isDigit() && piece.at(digits).unicode() < 128)
        ++digits;
    if (digits == 0)
        return -1;
    bool ok = false;
    const int value = piece.left(digits).toInt(&ok);
    return ok ? value : -1;
}

} // namespace

std::optional<NodeVersion> NodeVersion::parse(const QString& text)
{
    QStringView trimmed = QStringView(text).trimmed();
    while (trimmed.startsWith(QLatin1Char('v')))
        trimmed = trimmed.mid(1);
    while (trimmed.endsWith(QLatin1Char('v')))
        trimmed.chop(1);
    const QList<QStringView> pieces = trimmed.split(QLatin1Char('.'), Qt::SkipEmptyParts);
    if (pieces.size() < 2)
        return std::nullopt;
    const int major = leadingNumber(pieces.at(0));
    if (major < 0)
        return std::nullopt;
    const int minor = std::max(0, leadingNumber(pieces.at(1)));
    const int patch = pieces.size() > 2 ? std::max(0, leadingNumber(pieces.at(2))) : 0;
    return NodeVersion{major, minor, patch};
}

QString NodeVersion::toString() const
{
    return QStringLiteral("%1.%2.%3").arg(major).arg(minor).arg(patch);
}
