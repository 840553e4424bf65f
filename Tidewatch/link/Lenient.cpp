#include "link/Lenient.h"

#include <QJsonDocument>
#include <QJsonParseError>

#include <array>
#include <charconv>
#include <cmath>

namespace {

// The range of a JavaScript Date, which is what the service can send.
constexpr double kLimitMSecs = 8.64e15;
constexpr double kMillisecondsAbove = 1e11;

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
constexpr qint64 daysFromCivil(qint64 year, unsigned month, unsigned day)
{
    year -= month <= 2;
    const qint64 era = (year >= 0 ? year : year - 399) / 400;
    const unsigned yearOfEra = unsigned(year - era * 400);
    const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + qint64(dayOfEra) - 719468;
}

constexpr bool isLeapYear(int year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

constexpr int daysInMonth(int year, int month)
{
    constexpr std::array<int, 12> days{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeapYear(year) ? 29 : days[size_t(month - 1)];
}

// A cursor over UTF-16 text that reads fixed-width decimal fields.
class Cursor
{
public:
    explicit Cursor(QStringView text)
        : m_text(text)
    {
    }

    bool atEnd() const { return m_pos == m_text.size(); }
    char16_t peek() const { return atEnd() ? u'\0' : m_text[m_pos].unicode(); }
    void skip() { ++m_pos; }

    bool take(char16_t expected)
    {
        if (peek() != expected)
            return false;
        ++m_pos;
        return true;
    }

    bool digits(int width, int& out)
    {
        int value = 0;
        for (int i = 0; i < width; ++i) {
            const char16_t c = peek();
            if (c < u'0' || c > u'9')
                return false;
            value = value * 10 + (c - u'0');
            ++m_pos;
        }
        out = value;
        return true;
    }

private:
    QStringView m_text;
    qsizetype m_pos = 0;
};

// ISO 8601 in the internet profile: a full date, a full time with optional
// fractional seconds, and a zone. A time without a zone is ambiguous and fails.
std::optional<qint64> parseIsoMSecs(QStringView text)
{
    Cursor in(text);
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!in.digits(4, year) || !in.take(u'-') || !in.digits(2, month) || !in.take(u'-') || !in.digits(2, day))
        return std::nullopt;
    if (!in.take(u'T') && !in.take(u't') && !in.take(u' '))
        return std::nullopt;
    if (!in.digits(2, hour) || !in.take(u':') || !in.digits(2, minute) || !in.take(u':') || !in.digits(2, second))
        return std::nullopt;

    int millis = 0;
    if (in.take(u'.')) {
        int fractionDigits = 0;
        for (char16_t c = in.peek(); c >= u'0' && c <= u'9'; c = in.peek()) {
            // Beyond the millisecond the digits are read and dropped.
            if (fractionDigits < 3)
                millis = millis * 10 + (c - u'0');
            ++fractionDigits;
            in.skip();
        }
        if (fractionDigits == 0)
            return std::nullopt;
        for (int i = fractionDigits; i < 3; ++i)
            millis *= 10;
    }

    int offsetMinutes = 0;
    if (in.take(u'Z') || in.take(u'z')) {
        // UTC
    } else if (in.peek() == u'+' || in.peek() == u'-') {
        const int sign = in.peek() == u'-' ? -1 : 1;
        in.skip();
        int offsetHours = 0, offsetMins = 0;
        if (!in.digits(2, offsetHours))
            return std::nullopt;
        if (!in.atEnd()) {
            in.take(u':');
            if (!in.digits(2, offsetMins))
                return std::nullopt;
        }
        if (offsetHours > 23 || offsetMins > 59)
            return std::nullopt;
        offsetMinutes = sign * (offsetHours * 60 + offsetMins);
    } else {
        return std::nullopt;
    }
    if (!in.atEnd())
        return std::nullopt;

    if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 || minute > 59 || second > 59)
        return std::nullopt;
    const qint64 days = daysFromCivil(year, unsigned(month), unsigned(day));
    const qint64 seconds = ((days * 24 + hour) * 60 + minute) * 60 + second - qint64(offsetMinutes) * 60;
    return seconds * 1000 + millis;
}

// The whole text as a number, read the same in every locale. A sign may lead;
// blanks may not.
std::optional<double> parseWholeNumber(QStringView text)
{
    std::array<char, 64> buffer{};
    if (text.isEmpty() || text.size() > qsizetype(buffer.size()))
        return std::nullopt;
    qsizetype length = 0;
    for (const QChar c : text) {
        if (c.unicode() > 0x7f)
            return std::nullopt;
        buffer[size_t(length++)] = char(c.unicode());
    }
    const char* begin = buffer.data();
    const char* end = begin + length;
    // from_chars takes no '+', and would then also take "+-5".
    if (*begin == '+') {
        ++begin;
        if (begin == end || *begin == '-')
            return std::nullopt;
    }
    double number = 0;
    const auto [stop, error] = std::from_chars(begin, end, number);
    if (error != std::errc() || stop != end || !std::isfinite(number))
        return std::nullopt;
    return number;
}

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

FlexDate FlexDate::fromDateTime(const QDateTime& moment)
{
    return FlexDate{moment.isValid() ? moment.toMSecsSinceEpoch() : 0};
}

QDateTime FlexDate::toDateTime() const
{
    return QDateTime::fromMSecsSinceEpoch(msecsSinceEpoch, Qt::UTC);
}

std::optional<FlexDate> FlexDate::fromNumber(double number)
{
    if (!std::isfinite(number))
        return std::nullopt;
    const double msecs = number > kMillisecondsAbove ? number : number * 1000.0;
    if (std::fabs(msecs) > kLimitMSecs)
        return std::nullopt;
    return FlexDate{std::llround(msecs)};
}

std::optional<FlexDate> FlexDate::fromString(QStringView text)
{
    if (std::optional<double> number = parseWholeNumber(text))
        return fromNumber(*number);
    std::optional<qint64> msecs = parseIsoMSecs(text);
    if (!msecs || std::fabs(double(*msecs)) > kLimitMSecs)
        return std::nullopt;
    return FlexDate{*msecs};
}

std::optional<FlexDate> FlexDate::fromJson(const QJsonValue& value)
{
    return readDate(value);
}

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
    for (qsizetype i = 0, n = array.size(); i < n; ++i) {
        const QJsonValue element = array.at(i);
        if (element.isString())
            list.append(element.toString());
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
