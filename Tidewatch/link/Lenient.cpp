#include "link/Lenient.h"

#include <QJsonDocument>
#include <QJsonParseError>

#include <cmath>

namespace {
// The readers work alike on a value and on a reference into an object, which
// spares a copy of every field read.
template <class Value> std::optional<QString> readString(const Value& value)
{
    if (!value.isString())
        return std::nullopt;
    return value.toString();
}

template <class Value> std::optional<bool> readBoolean(const Value& value)
{
    if (!value.isBool())
        return std::nullopt;
    return value.toBool();
}

template <class Value> std::optional<double> readNumber(const Value& value)
{
    if (!value.isDouble())
        return std::nullopt;
    const double number = value.toDouble();
    if (!std::isfinite(number))
        return std::nullopt;
    return number;
}

template <class Value> std::optional<qint64> readInteger(const Value& value)
{
    if (!value.isDouble())
        return std::nullopt;
    // toInteger() falls back to its argument for a fraction or an overflow, so
    // two different fall-backs tell a real 0 from a refusal.
    const qint64 whole = value.toInteger(0);
    if (whole != 0)
        return whole;
    if (value.toInteger(1) == 0)
        return qint64(0);
    return std::nullopt;
}

template <class Value> std::optional<FlexDate> readDate(const Value& value)
{
    switch (value.type()) {
    case QJsonValue::Double:
        return FlexDate::fromNumber(value.toDouble());
    case QJsonValue::String:
        return FlexDate::fromString(value.toString());
    default:
        return std::nullopt;
    }
}

} // namespace

namespace Lenient {

std::optional<QString> string(const QJsonValue& value)
{
    return readString(value);
}

std::optional<bool> boolean(const QJsonValue& value)
{
    return readBoolean(value);
}

std::optional<double> number(const QJsonValue& value)
{
    return readNumber(value);
}

std::optional<qint64> integer(const QJsonValue& value)
{
    return readInteger(value);
}

std::optional<QStringList> strings(const QJsonValue& value)
{
    if (!value.isArray())
        return std::nullopt;
    const QJsonArray array = value.toArray();
    QStringList list;
    list.reserve(reserveFor(array.size()));
    for (const QJsonValue element : array) {
        if (element.isString())
            list.append(element.toString());
    }
    return list;
}

std::optional<QList<qint64>> integers(const QJsonValue& value)
{
    if (!value.isArray())
        return std::nullopt;
    const QJsonArray array = value.toArray();
    QList<qint64> list;
    list.reserve(reserveFor(array.size()));
    for (const QJsonValue element : array) {
        if (std::optional<qint64> whole = readInteger(element))
            list.append(*whole);
    }
    return list;
}

std::optional<JSONValue> json(const QJsonValue& value)
{
    if (value.isUndefined() || value.isNull())
        return std::nullopt;
    return value;
}

Fields::Fields(QJsonObject object)
    : m_object(std::move(object))
{
    m_buckets.fill(-1);
    m_keys.reserve(m_object.size());
    qint32 position = -1;
    for (auto it = m_object.constBegin(), end = m_object.constEnd(); it != end; ++it) {
        ++position;
        const QString key = it.key();
        const qsizetype offset = m_text.size();
        bool latin1 = true;
        for (const QChar c : key) {
            if (c.unicode() > 0xff) {
                latin1 = false;
                break;
            }
            m_text.append(char(c.unicode()));
        }
        if (!latin1) {
            m_text.resize(offset);
            continue; // no field has such a name
        }
        const size_t bucket = bucketOf(key.size(), key.isEmpty() ? '\0' : m_text[offset]);
        m_keys.append(Key{qint32(offset), qint32(key.size()), position, m_buckets[bucket]});
        m_buckets[bucket] = qint32(m_keys.size() - 1);
    }
}

qsizetype Fields::indexOf(QLatin1StringView key) const
{
    const qsizetype length = key.size();
    const char* wanted = key.data();
    const char* text = m_text.constData();
    for (qint32 i = m_buckets[bucketOf(length, length ? wanted[0] : '\0')]; i >= 0; i = m_keys[i].next) {
        const Key& candidate = m_keys[i];
        if (candidate.length != length)
            continue;
        // Keys are a few letters: a loop in line beats a call to memcmp.
        const char* have = text + candidate.offset;
        qsizetype at = 0;
        while (at < length && have[at] == wanted[at])
            ++at;
        if (at == length)
            return candidate.position;
    }
    return -1;
}

QJsonValue Fields::value(QLatin1StringView key) const
{
    const qsizetype index = indexOf(key);
    return index < 0 ? QJsonValue(QJsonValue::Undefined) : QJsonValue(m_object.constBegin()[index]);
}

std::optional<QString> Fields::string(QLatin1StringView key) const
{
    const qsizetype index = indexOf(key);
    return index < 0 ? std::nullopt : readString(m_object.constBegin()[index]);
}

std::optional<std::pair<QString, QString>> Fields::stringPair(QLatin1StringView first, QLatin1StringView second) const
{
    std::optional<QString> one = string(first);
    std::optional<QString> two = string(second);
    if (!one || !two)
        return std::nullopt;
    return std::pair{std::move(*one), std::move(*two)};
}

std::optional<bool> Fields::boolean(QLatin1StringView key) const
{
    const qsizetype index = indexOf(key);
    return index < 0 ? std::nullopt : readBoolean(m_object.constBegin()[index]);
}

std::optional<double> Fields::number(QLatin1StringView key) const
{
    const qsizetype index = indexOf(key);
    return index < 0 ? std::nullopt : readNumber(m_object.constBegin()[index]);
}

std::optional<qint64> Fields::integer(QLatin1StringView key) const
{
    const qsizetype index = indexOf(key);
    return index < 0 ? std::nullopt : readInteger(m_object.constBegin()[index]);
}

std::optional<FlexDate> Fields::date(QLatin1StringView key) const
{
    const qsizetype index = indexOf(key);
    return index < 0 ? std::nullopt : readDate(m_object.constBegin()[index]);
}

std::optional<QJsonValue> parseRoot(const QByteArray& body)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError)
        return std::nullopt;
    if (document.isObject())
        return QJsonValue(document.object());
    if (document.isArray())
        return QJsonValue(document.array());
    return std::nullopt;
}

} // namespace Lenient
