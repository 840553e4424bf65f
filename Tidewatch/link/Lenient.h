#pragma once

#include "base/FlexDate.h"

#include <QByteArray>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QLatin1StringView>
#include <QList>
#include <QString>
#include <QStringList>
#include <QStringView>
#include <QVarLengthArray>

#include <array>
#include <optional>
#include <utility>

// The service and the app are updated at different moments, so every reply may
// come from an older or a newer service. The readers here carry the one rule of
// the link: an unreadable field never sinks its record, and an unreadable
// element never sinks its list. Records stay plain structs whose fromJson()
// reads one key at a time with these readers.

/// A piece of JSON kept as the service sent it (a tool's input); each JSON
/// type is its own case.
using JSONValue = QJsonValue;

/// Field and value readers. Each gives none for a missing value and for one of
/// another JSON type; none of them fails the record that calls it.
namespace Lenient {

/// A JSON string.
std::optional<QString> string(const QJsonValue& value);
/// A JSON boolean.
std::optional<bool> boolean(const QJsonValue& value);
/// Any finite JSON number.
std::optional<double> number(const QJsonValue& value);
/// A whole JSON number that fits 64 bits: 2 and 2.0 read, 2.5 and "2" don't.
std::optional<qint64> integer(const QJsonValue& value);
/// The string elements of a JSON array, others dropped; none for a non-array.
std::optional<QStringList> strings(const QJsonValue& value);
/// The whole-number elements of a JSON array, others dropped; none for a non-array.
std::optional<QList<qint64>> integers(const QJsonValue& value);
/// Any JSON value but null, kept as it came.
std::optional<JSONValue> json(const QJsonValue& value);

/// Room to set aside for the readable elements of an array of `size`: a
/// million numbers where records should be must not claim a million records.
constexpr qsizetype reserveFor(qsizetype size)
{
    return size < 1024 ? size : 1024;
}

} // namespace Lenient

/// A list from the service that may be partly unreadable, or, from an older
/// service, a bare count in place of the list.
template <class T> struct FlexList {
    /// The elements that read, in the service's order.
    QList<T> items;
    /// How many elements the service says there are; may exceed items.size().
    qint64 count = 0;

    /// Never fails: a whole number is a bare count, an array keeps its readable
    /// elements and counts them all, anything else is an empty list.
    static FlexList fromJson(const QJsonValue& value)
    {
        FlexList list;
        if (std::optional<qint64> bare = Lenient::integer(value)) {
            list.count = *bare;
            return list;
        }
        if (value.isArray()) {
            const QJsonArray array = value.toArray();
            list.count = array.size();
            list.items.reserve(Lenient::reserveFor(array.size()));
            for (const QJsonValue element : array) {
                if (std::optional<T> item = T::fromJson(element))
                    list.items.append(std::move(*item));
            }
        }
        return list;
    }

    bool operator==(const FlexList&) const = default;
};

namespace Lenient {

/// The readable elements of a JSON array, in their order; none for a non-array.
template <class T> std::optional<QList<T>> records(const QJsonValue& value)
{
    if (!value.isArray())
        return std::nullopt;
    const QJsonArray array = value.toArray();
    QList<T> items;
    items.reserve(reserveFor(array.size()));
    for (const QJsonValue element : array) {
        if (std::optional<T> item = T::fromJson(element))
            items.append(std::move(*item));
    }
    return items;
}

/// One JSON object read key by key. The keys are copied out once when it
/// opens, so that each field costs a short scan of plain bytes rather than a
/// search of the object, and no key's string outlives its own reading (a pile
/// of small freed strings makes every later large allocation slow).
class Fields
{
public:
    explicit Fields(QJsonObject object);

    /// Opens a value as an object; none when it is anything else.
    static std::optional<Fields> open(const QJsonValue& value)
    {
        // Built in place: the key tables are too big to move about.
        std::optional<Fields> fields;
        if (value.isObject())
            fields.emplace(value.toObject());
        return fields;
    }

    const QJsonObject& object() const { return m_object; }
    /// Undefined when the key is missing.
    QJsonValue value(QLatin1StringView key) const;
    bool has(QLatin1StringView key) const { return indexOf(key) >= 0; }

    std::optional<QString> string(QLatin1StringView key) const;
    /// Two strings a record can't be read without, such as its id and kind; none when either is missing.
    std::optional<std::pair<QString, QString>> stringPair(QLatin1StringView first, QLatin1StringView second) const;
    std::optional<bool> boolean(QLatin1StringView key) const;
    std::optional<double> number(QLatin1StringView key) const;
    std::optional<qint64> integer(QLatin1StringView key) const;
    std::optional<FlexDate> date(QLatin1StringView key) const;
    std::optional<QStringList> strings(QLatin1StringView key) const { return Lenient::strings(value(key)); }
    std::optional<QList<qint64>> integers(QLatin1StringView key) const { return Lenient::integers(value(key)); }
    std::optional<JSONValue> json(QLatin1StringView key) const { return Lenient::json(value(key)); }

    template <class T> std::optional<T> record(QLatin1StringView key) const { return T::fromJson(value(key)); }
    template <class T> std::optional<QList<T>> records(QLatin1StringView key) const
    {
        return Lenient::records<T>(value(key));
    }
    template <class T> FlexList<T> list(QLatin1StringView key) const { return FlexList<T>::fromJson(value(key)); }

private:
    // A key's Latin-1 text in m_text, where it stands in the object, and the
    // next key of its bucket (-1 for none).
    struct Key {
        qint32 offset;
        qint32 length;
        qint32 position;
        qint32 next;
    };
    static constexpr size_t kBuckets = 32;

    static size_t bucketOf(qsizetype length, char first)
    {
        return (size_t(length) * 7 + size_t(uchar(first))) % kBuckets;
    }
    /// The key's position in the object, or -1.
    qsizetype indexOf(QLatin1StringView key) const;

    QJsonObject m_object;
    QVarLengthArray<char, 512> m_text;
    QVarLengthArray<Key, 32> m_keys;
    std::array<qint32, kBuckets> m_buckets;
};

/// The root of a JSON document (object or array); none when the bytes aren't JSON.
std::optional<QJsonValue> parseRoot(const QByteArray& body);

} // namespace Lenient

/// Parses a reply and reads its root as T; none when the bytes aren't JSON or
/// the root isn't a T.
template <class T> std::optional<T> decodeDocument(const QByteArray& body)
{
    std::optional<QJsonValue> root = Lenient::parseRoot(body);
    if (!root)
        return std::nullopt;
    return T::fromJson(*root);
}

/// A list reply that is either a bare array or an object holding the array
/// under `key` ({"devices":[…]}); none when the bytes aren't JSON.
template <class T> std::optional<FlexList<T>> decodeListDocument(const QByteArray& body, QLatin1StringView key)
{
    std::optional<QJsonValue> root = Lenient::parseRoot(body);
    if (!root)
        return std::nullopt;
    if (root->isObject())
        return FlexList<T>::fromJson(root->toObject().value(key));
    return FlexList<T>::fromJson(*root);
}
