#include "base/FlexDate.h"

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
    const auto yearOfEra = unsigned(year - era * 400);
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
    switch (value.type()) {
    case QJsonValue::Double:
        return fromNumber(value.toDouble());
    case QJsonValue::String:
        return fromString(value.toString());
    default:
        return std::nullopt;
    }
}
