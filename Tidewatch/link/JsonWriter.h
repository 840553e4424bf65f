#pragma once

#include <QByteArray>
#include <QLatin1StringView>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

/// Compact JSON text written in the order the calls come, for bodies whose key
/// order is part of the contract (a QJsonObject sorts its keys).
class JsonWriter
{
public:
    JsonWriter& beginObject();
    JsonWriter& endObject();
    JsonWriter& beginArray();
    JsonWriter& endArray();
    /// The key of the next value in the open object.
    JsonWriter& key(QLatin1StringView name);

    JsonWriter& string(const QString& value);
    JsonWriter& integer(qint64 value);
    JsonWriter& boolean(bool value);
    JsonWriter& null();
    JsonWriter& strings(const QStringList& values);
    JsonWriter& integers(const QList<qint64>& values);

    /// A key and its value, left out when the value is missing.
    template <class T> JsonWriter& field(QLatin1StringView name, const std::optional<T>& value)
    {
        if (value)
            put(key(name), *value);
        return *this;
    }
    /// A key and its value, null when the value is missing.
    template <class T> JsonWriter& fieldOrNull(QLatin1StringView name, const std::optional<T>& value)
    {
        key(name);
        if (value)
            put(*this, *value);
        else
            null();
        return *this;
    }

    const QByteArray& text() const { return m_text; }

private:
    static void put(JsonWriter& out, const QString& value) { out.string(value); }
    static void put(JsonWriter& out, qint64 value) { out.integer(value); }
    static void put(JsonWriter& out, bool value) { out.boolean(value); }
    static void put(JsonWriter& out, const QStringList& value) { out.strings(value); }
    static void put(JsonWriter& out, const QList<qint64>& value) { out.integers(value); }

    /// The comma before a value or key that isn't the first of its container.
    void separate();

    QByteArray m_text;
    // One entry per open container: whether it holds something yet.
    QList<bool> m_filled;
    bool m_afterKey = false;
};
