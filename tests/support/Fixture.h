#pragma once

#include "link/Lenient.h"

#include <QByteArray>
#include <QDateTime>
#include <QJsonValue>
#include <QStringList>

#include <optional>

/// Records written as JSON in a test, at one fixed moment, so that a row of a
/// table reads as the situation it stands for.
namespace Fixture {

/// Thursday 2025-10-09 10:53:20 UTC: "now" in every test that reads times.
inline constexpr qint64 kNowMs = 1760007200000;
QDateTime now();
/// The moment `seconds` after now (before it when negative).
FlexDate at(double seconds);

/// The JSON value of a text, where a string "@+90" stands for the moment 90
/// seconds after now (as milliseconds since 1970). Bad JSON stops the run.
QJsonValue json(const QByteArray& text);

/// Stops the run: a fixture that doesn't decode is a fault of the test.
[[noreturn]] void undecodable(const QByteArray& text);

/// The record a text decodes to.
template <class T> T record(const QByteArray& text)
{
    std::optional<T> value = T::fromJson(json(text));
    if (!value)
        undecodable(text);
    return *value;
}

/// None for an empty text, else what it decodes to (which may be none).
template <class T> std::optional<T> maybe(const QByteArray& text)
{
    return text.isEmpty() ? std::nullopt : T::fromJson(json(text));
}

/// A sample under tests/data, as bytes; a missing one stops the run.
QByteArray sample(const QString& name);

/// The ids of records, in their order.
template <class T> QStringList ids(const QList<T>& records)
{
    QStringList list;
    for (const T& record : records)
        list << record.id;
    return list;
}

} // namespace Fixture
