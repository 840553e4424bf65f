#include "link/Device.h"
#include "link/Lenient.h"
#include "link/Session.h"

#include "Fixture.h"

#include <QJsonDocument>
#include <QTest>

#include <limits>

using namespace Qt::StringLiterals;

class TestLenient : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void dates_data();
    void dates();
    void dateFromDocumentValue();
    void integers_data();
    void integers();
    void flexList_data();
    void flexList();
    void stringListsDropOtherElements();
    void documents_data();
    void documents();
    void deviceList_data();
    void deviceList();
};

namespace {

// 2025-10-09T10:53:20Z
constexpr qint64 kMoment = 1760007200000;

using Fixture::json;

QString show(const std::optional<FlexDate>& date)
{
    return date ? QString::number(date->msecsSinceEpoch) : u"none"_s;
}

} // namespace

void TestLenient::dates_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<bool>("reads");
    QTest::addColumn<qint64>("msecs");

    auto reads = [](const char* name, const char* value, qint64 msecs) {
        QTest::newRow(name) << QByteArray(value) << true << msecs;
    };
    auto fails = [](const char* name, const char* value) { QTest::newRow(name) << QByteArray(value) << false << 0ll; };

    reads("milliseconds", "1760007200000", kMoment);
    reads("seconds are the same moment", "1760007200", kMoment);
    reads("seconds as a string", "\"1760007200\"", kMoment);
    reads("ISO without a fraction", "\"2025-10-09T10:53:20Z\"", kMoment);
    reads("ISO with a colon offset", "\"2025-10-09T12:53:20+02:00\"", kMoment);
    reads("ISO with a bare negative offset", "\"2025-10-09T05:23:20-0530\"", kMoment);
    reads("ISO with an hours-only offset", "\"2025-10-09T12:53:20+02\"", kMoment);
    reads("ISO beyond milliseconds is cut, not rounded", "\"2025-10-09T10:53:20.123999Z\"", kMoment + 123);
    reads("ISO on a leap day", "\"2024-02-29T00:00:00Z\"", 1709164800000);
    reads("ISO before 1970", "\"1969-12-31T23:59:59Z\"", -1000);
    reads("fractional seconds", "1760007200.25", kMoment + 250);
    reads("fractional milliseconds round to the nearest", "1760007200000.6", kMoment + 1);
    reads("1e11 itself is seconds", "100000000000", 100000000000000);
    reads("just above 1e11 is milliseconds", "100000000001", 100000000001);
    reads("negative seconds", "-86400", -86400000);
    reads("zero is the epoch", "0", 0);
    reads("an exponent in a string", "\"1.7600072e9\"", kMoment);
    reads("a leading plus in a string", "\"+1760007200\"", kMoment);
    reads("a short year-like string is a number", "\"2025\"", 2025000);

    fails("a word", "\"never\"");
    fails("an empty string", "\"\"");
    fails("a blank before a number", "\" 1760007200\"");
    fails("a decimal comma", "\"1760007200,5\"");
    fails("two signs", "\"+-1760007200\"");
    fails("nan as a string", "\"nan\"");
    fails("non-ASCII digits", "\"\xef\xbc\x91\xef\xbc\x97\"");
    fails("beyond the range of a date", "1e300");
    fails("an object", "{\"at\":1760007200}");
    fails("ISO without a zone", "\"2025-10-09T10:53:20\"");
    fails("ISO date alone", "\"2025-10-09\"");
    fails("ISO with a dot and no digits", "\"2025-10-09T10:53:20.Z\"");
    fails("ISO on a day that doesn't exist", "\"2025-02-29T10:53:20Z\"");
    fails("ISO with a leap second", "\"2016-12-31T23:59:60Z\"");
    fails("ISO with words after it", "\"2025-10-09T10:53:20Z please\"");
    fails("ISO with a half offset", "\"2025-10-09T10:53:20+02:\"");
    fails("a human date", "\"Thu, 09 Oct 2025 10:53:20 GMT\"");
}

void TestLenient::dates()
{
    QFETCH(QByteArray, value);
    QFETCH(bool, reads);
    QFETCH(qint64, msecs);

    const std::optional<FlexDate> date = FlexDate::fromJson(json(value));
    QCOMPARE(show(date), reads ? QString::number(msecs) : u"none"_s);
}

void TestLenient::dateFromDocumentValue()
{
    // The moment survives the trip into a QDateTime and compares by moment.
    const std::optional<FlexDate> iso = FlexDate::fromJson(json("\"2025-10-09T12:53:20.250+02:00\""));
    QVERIFY(iso);
    QCOMPARE(iso->toDateTime(), QDateTime::fromString(u"2025-10-09T10:53:20.250Z"_s, Qt::ISODateWithMs));
    QCOMPARE(iso->toDateTime().timeSpec(), Qt::UTC);
    QCOMPARE(FlexDate::fromDateTime(iso->toDateTime()), *iso);
    QVERIFY(FlexDate::fromMSecsSinceEpoch(kMoment) < *iso);
    QCOMPARE(qHash(*FlexDate::fromJson(json("1760007200"))), qHash(*FlexDate::fromJson(json("1760007200000"))));
}

void TestLenient::integers_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<bool>("reads");
    QTest::addColumn<qint64>("expected");

    QTest::newRow("a whole number") << QByteArray("2") << true << 2ll;
    QTest::newRow("a whole number written as a double") << QByteArray("2.0") << true << 2ll;
    QTest::newRow("negative") << QByteArray("-3") << true << -3ll;
    QTest::newRow("the largest 64-bit value")
        << QByteArray("9223372036854775807") << true << std::numeric_limits<qint64>::max();
    QTest::newRow("the smallest 64-bit value")
        << QByteArray("-9223372036854775808") << true << std::numeric_limits<qint64>::min();
    QTest::newRow("a tiny fraction near zero") << QByteArray("1e-300") << false << 0ll;
    QTest::newRow("one past 64 bits") << QByteArray("9223372036854775808") << false << 0ll;
    QTest::newRow("a numeric string") << QByteArray("\"2\"") << false << 0ll;
}

void TestLenient::integers()
{
    QFETCH(QByteArray, value);
    QFETCH(bool, reads);
    QFETCH(qint64, expected);

    // The same rule holds for an integer field inside a record.
    const QJsonObject session{{u"id"_s, u"s"_s}, {u"queued"_s, json(value)}};
    const std::optional<qint64> queued = Session::fromJson(session)->queued;
    QCOMPARE(Lenient::integer(json(value)), reads ? std::optional<qint64>(expected) : std::nullopt);
    QCOMPARE(queued, reads ? std::optional<qint64>(expected) : std::nullopt);
}

void TestLenient::flexList_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QStringList>("ids");
    QTest::addColumn<qint64>("count");

    QTest::newRow("unreadable elements drop out and still count")
        << QByteArray(R"([{"id":"a"},7,{"id":"b"}])") << QStringList{u"a"_s, u"b"_s} << 3ll;
    QTest::newRow("elements missing their id drop out")
        << QByteArray(R"([{"id":"a"},{"title":"x"},{"id":9},null,"s"])") << QStringList{u"a"_s} << 5ll;
    QTest::newRow("the service's order is kept")
        << QByteArray(R"([{"id":"z"},{"id":"a"},{"id":"m"}])") << QStringList{u"z"_s, u"a"_s, u"m"_s} << 3ll;
    QTest::newRow("a bare count from an older service") << QByteArray("3") << QStringList() << 3ll;
    QTest::newRow("a bare count written as a double") << QByteArray("3.0") << QStringList() << 3ll;
    QTest::newRow("a fractional count is nothing") << QByteArray("2.5") << QStringList() << 0ll;
    QTest::newRow("an object is nothing") << QByteArray(R"({"id":"a"})") << QStringList() << 0ll;
}

void TestLenient::flexList()
{
    QFETCH(QByteArray, value);

    const FlexList<Session> list = FlexList<Session>::fromJson(json(value));
    QTEST(Fixture::ids(list.items), "ids");
    QTEST(list.count, "count");
}

void TestLenient::stringListsDropOtherElements()
{
    QCOMPARE(Lenient::strings(json(R"(["a",7,null,"b",["c"]])")), QStringList({u"a"_s, u"b"_s}));
    QCOMPARE(Lenient::strings(json("[]")), QStringList());
    QCOMPARE(Lenient::strings(json("\"a\"")), std::nullopt);
}

void TestLenient::documents_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<bool>("reads");

    QTest::newRow("an object") << QByteArray(R"({"id":"s1"})") << true;
    QTest::newRow("an id of another type") << QByteArray(R"({"id":1,"title":"T"})") << false;
    // However deep they go, in the record and in the records inside it.
    QTest::newRow("unknown keys are ignored") << QByteArray(R"({"id":"s1","future":)") + QByteArray(200, '[')
            + QByteArray(200, ']') + R"(,"term":{"id":"t","x":{"a":[1,{"b":null}]}}})"
                                              << true;
    QTest::newRow("no bytes") << QByteArray() << false;
    QTest::newRow("truncated") << QByteArray(R"({"id":"s1")") << false;
    QTest::newRow("bytes after the document") << QByteArray(R"({"id":"s1"} x)") << false;
    QTest::newRow("a scalar root") << QByteArray("\"s1\"") << false;
    QTest::newRow("an array root for a record") << QByteArray(R"([{"id":"s1"}])") << false;
    QTest::newRow("the record's required field missing") << QByteArray(R"({"title":"T"})") << false;
    QTest::newRow("a number out of every range") << QByteArray(R"({"id":"s1","queued":1e400})") << false;
    QTest::newRow("nesting beyond the parser's limit")
        << QByteArray(R"({"id":"s1","x":)") + QByteArray(5000, '[') + QByteArray(5000, ']') + "}" << false;
}

void TestLenient::documents()
{
    QFETCH(QByteArray, body);
    QFETCH(bool, reads);

    const std::optional<Session> session = decodeDocument<Session>(body);
    QCOMPARE(session.has_value(), reads);
    if (reads) {
        QCOMPARE(session->id, u"s1"_s);
        QCOMPARE(session->term.has_value(), body.contains("\"term\""));
    }
}

void TestLenient::deviceList_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<bool>("reads");
    QTest::addColumn<QStringList>("ids");
    QTest::addColumn<qint64>("count");

    QTest::newRow("a bare array") << QByteArray(R"([{"id":"d1"},{"id":"d2","name":"Pixel"}])") << true
                                  << QStringList{u"d1"_s, u"d2"_s} << 2ll;
    QTest::newRow("an object holding the array")
        << QByteArray(R"({"devices":[{"id":"d1"},"junk"]})") << true << QStringList{u"d1"_s} << 2ll;
    QTest::newRow("an object holding a bare count") << QByteArray(R"({"devices":4})") << true << QStringList() << 4ll;
    QTest::newRow("an object without devices") << QByteArray(R"({"ok":true})") << true << QStringList() << 0ll;
    QTest::newRow("not JSON") << QByteArray("devices: d1") << false << QStringList() << 0ll;
}

void TestLenient::deviceList()
{
    QFETCH(QByteArray, body);
    QFETCH(qint64, count);

    const std::optional<FlexList<Device>> list = decodeDeviceList(body);
    QTEST(list.has_value(), "reads");
    if (!list)
        return;
    QTEST(Fixture::ids(list->items), "ids");
    QCOMPARE(list->count, count);
}

QTEST_GUILESS_MAIN(TestLenient)
#include "TestLenient.moc"
