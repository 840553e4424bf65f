#include "link/DaemonClient.h"

#include "RealPlaces.h"
#include "ScratchFolder.h"
#include "ServiceProcess.h"
#include "StaticSite.h"

#include <QEventLoop>
#include <QJsonArray>
#include <QJsonObject>
#include <QTest>
#include <QThread>
#include <QTimer>

using namespace Qt::StringLiterals;

using Method = DaemonClient::Method;

Q_DECLARE_METATYPE(DaemonError::Kind)

namespace {

// Runs one asynchronous call to its end on a local event loop.
template <class T, class Start> std::optional<T> await(Start start, int limitMs = 20000)
{
    std::optional<T> result;
    QEventLoop loop;
    start([&](T value) {
        result = std::move(value);
        loop.quit();
    });
    if (!result) {
        QTimer::singleShot(limitMs, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return result;
}

// The sentence of a failed result, for a test's message; empty on success.
template <class T> QByteArray failureOf(const DaemonResult<T>& result)
{
    return result.ok() ? QByteArray() : result.error().errorDescription().toUtf8();
}

QJsonObject fault(const QString& route, int status, const QString& body = QString(),
    const QString& contentType = QStringLiteral("application/json"))
{
    return {{QStringLiteral("route"), route}, {QStringLiteral("status"), status}, {QStringLiteral("body"), body},
        {QStringLiteral("contentType"), contentType}};
}

} // namespace

class TestDaemonClient : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();

    void healthThatIsNotOkIsNoHealth_data();
    void healthThatIsNotOkIsNoHealth();
    void failuresAreSentences_data();
    void failuresAreSentences();
    void detailCarriesTheField();
    void timeoutIsASentence();
    void aKeyThatDoesntServeIsASentence_data();
    void aKeyThatDoesntServeIsASentence();
    void aStoppedServiceIsNotRunning();
    void blockingFormsWorkOffTheMainThread();

    void bodiesAndHeadersOnTheWire();
    void pathSegmentsCannotEscape_data();
    void pathSegmentsCannotEscape();

private:
    ScratchFolder m_scratch;
    std::unique_ptr<ServiceProcess> m_service;
    std::unique_ptr<DaemonClient> m_client;
};

void TestDaemonClient::initTestCase()
{
    m_service = std::make_unique<ServiceProcess>(m_scratch.path());
    QVERIFY2(m_service->start(), qPrintable(m_service->lastError()));
    m_client = std::make_unique<DaemonClient>(m_service->environment());
}

void TestDaemonClient::cleanupTestCase()
{
    if (m_service)
        QCOMPARE(m_service->stop(), 0);
}

void TestDaemonClient::init()
{
    if (!m_service->isRunning())
        QVERIFY2(m_service->start(), qPrintable(m_service->lastError()));
    m_service->qa("DELETE", QStringLiteral("/qa/faults"));
    m_service->qa("POST", QStringLiteral("/qa/reset"), QJsonObject{});
}

void TestDaemonClient::healthThatIsNotOkIsNoHealth_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("body");
    QTest::addColumn<bool>("healthy");

    QTest::newRow("the service's own answer") << 0 << QString() << true;
    QTest::newRow("200 without ok true") << 200 << R"({"ok":false})" << false;
    QTest::newRow("200 that isn't JSON") << 200 << u"fine"_s << false;
    QTest::newRow("503 with ok true") << 503 << R"({"ok":true})" << false;
}

void TestDaemonClient::healthThatIsNotOkIsNoHealth()
{
    QFETCH(int, status);
    QFETCH(QString, body);
    QFETCH(bool, healthy);
    if (status)
        m_service->qa("POST", QStringLiteral("/qa/faults"), fault(QStringLiteral("GET /v1/health"), status, body));
    const auto health = await<std::optional<Health>>([&](auto done) { m_client->health(1.5, done); });
    QVERIFY(health);
    QCOMPARE(health->has_value(), healthy);
}

void TestDaemonClient::failuresAreSentences_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("body");
    QTest::addColumn<QString>("contentType");
    QTest::addColumn<DaemonError::Kind>("kind");
    QTest::addColumn<QString>("sentence");
    QTest::addColumn<QString>("code");

    const QString json = QStringLiteral("application/json");
    const QString text = QStringLiteral("text/plain");
    const QString long1000 = QString(QStringLiteral("abcdefghij")).repeated(100);
    const DaemonError::Kind server = DaemonError::Kind::Server;
    const QString unexpected = u"The background service sent something unexpected (GET /v1/snapshot)."_s;

    QTest::newRow("500 with an error body speaks the service's words")
        << 500 << R"({"error":{"code":"x","message":"nope"}})" << json << server << u"nope"_s << u"x"_s;
    QTest::newRow("404 with no body names the status")
        << 404 << u""_s << json << server << u"The background service answered 404."_s << u""_s;
    QTest::newRow("502 with 1,000 bytes of text keeps the first 300")
        << 502 << long1000 << text << server << long1000.left(300) << u""_s;
    QTest::newRow("an error body without a message reads as text")
        << 503 << R"({"error":{"code":"busy"}})" << json << server << R"({"error":{"code":"busy"}})" << u"busy"_s;
    QTest::newRow("a message of the wrong type is no message")
        << 500 << R"({"error":{"message":7}})" << json << server << R"({"error":{"message":7}})" << u""_s;
    QTest::newRow("a redirect is not followed")
        << 302 << u""_s << json << server << u"The background service answered 302."_s << u""_s;
    QTest::newRow("a success of the wrong shape is a decoding failure")
        << 200 << u"[1,2,3]"_s << json << DaemonError::Kind::Decoding << unexpected << u""_s;
    QTest::newRow("a success cut short too")
        << 200 << u"{\"mac\":"_s << json << DaemonError::Kind::Decoding << unexpected << u""_s;
    // The network stack sends a request again once when a kept connection drops.
    QTest::newRow("a dropped connection is a service that isn't running")
        << 0 << u""_s << json << DaemonError::Kind::NotRunning << u"The background service isn’t running."_s << u""_s;
}

void TestDaemonClient::failuresAreSentences()
{
    QFETCH(int, status);
    QFETCH(QString, body);
    QFETCH(QString, contentType);
    QFETCH(DaemonError::Kind, kind);
    QFETCH(QString, sentence);
    QFETCH(QString, code);

    QJsonObject planted = fault(QStringLiteral("GET /v1/snapshot"), status, body, contentType);
    if (!status)
        planted = {{u"route"_s, u"GET /v1/snapshot"_s}, {u"drop"_s, true}, {u"times"_s, 2}};
    m_service->qa("POST", QStringLiteral("/qa/faults"), planted);
    const auto result = await<DaemonResult<Snapshot>>([&](auto done) { m_client->snapshot(done); });
    QVERIFY(result && !result->ok());
    const DaemonError& error = result->error();
    QCOMPARE(error.kind, kind);
    if (kind == DaemonError::Kind::Server)
        QCOMPARE(error.status, status);
    QCOMPARE(error.code.value_or(QString()), code);
    QCOMPARE(error.errorDescription(), sentence);
}

void TestDaemonClient::detailCarriesTheField()
{
    m_service->qa("POST", QStringLiteral("/qa/faults"),
        fault(QStringLiteral("/v1/snapshot"), 400, R"({"error":{"code":"bad","message":"m","field":"name"}})"));
    const auto result = await<DaemonResult<Snapshot>>([&](auto done) { m_client->snapshot(done); });
    QVERIFY(result && !result->ok());
    QCOMPARE(result->error(),
        DaemonError::detail(400, QStringLiteral("bad"), QStringLiteral("m"), QStringLiteral("name"), std::nullopt));

    // A failed run rides along, and the inner one is the more precise.
    m_service->qa("POST", QStringLiteral("/qa/faults"),
        fault(QStringLiteral("/v1/snapshot"), 422,
            R"({"run":{"id":"outer"},"error":{"message":"m","run":{"id":"inner"}}})"));
    const auto run = await<DaemonResult<Snapshot>>([&](auto done) { m_client->snapshot(done); });
    QVERIFY(run && !run->ok());
    QCOMPARE(run->error().kind, DaemonError::Kind::Detail);
    QCOMPARE(run->error().run->toObject().value(QStringLiteral("id")).toString(), QStringLiteral("inner"));
}

void TestDaemonClient::timeoutIsASentence()
{
    QJsonObject slow = fault(QStringLiteral("GET /v1/snapshot"), 200, QStringLiteral("{}"));
    slow.insert(QStringLiteral("delayMs"), 3000);
    m_service->qa("POST", QStringLiteral("/qa/faults"), slow);
    const auto result = await<DaemonResult<QByteArray>>(
        [&](auto done) { m_client->request(Method::Get, QStringLiteral("/v1/snapshot"), std::nullopt, 0.5, done); });
    QVERIFY(result && !result->ok());
    QVERIFY(result->error().isTimeout());
    QCOMPARE(result->error().errorDescription(), QStringLiteral("The background service took too long to answer."));
}

void TestDaemonClient::aKeyThatDoesntServeIsASentence_data()
{
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<DaemonError::Kind>("kind");
    QTest::addColumn<QString>("sentence");

    QTest::newRow("a wrong key is refused")
        << QByteArray("not-the-key\n") << DaemonError::Kind::Unauthorized
        << u"The background service didn’t accept Tidewatch’s admin key. Restart it from Setup."_s;
    QTest::newRow("an empty key file is no key")
        << QByteArray(" \n") << DaemonError::Kind::NoToken
        << u"Tidewatch couldn’t read its admin key. Restart the background service from Setup."_s;
}

void TestDaemonClient::aKeyThatDoesntServeIsASentence()
{
    QFETCH(QByteArray, key);
    QFETCH(DaemonError::Kind, kind);
    QFETCH(QString, sentence);
    // A client whose support folder holds that key, pointed at the same ports.
    ScratchFolder folder;
    folder.write(QStringLiteral("support/admin-token"), key);
    Environment::Variables variables = m_service->variables();
    variables.insert(QStringLiteral("TIDEWATCH_SUPPORT"), folder.path() + QStringLiteral("/support"));
    DaemonClient client(Environment(variables, folder.path()));

    const auto result = await<DaemonResult<Snapshot>>([&](auto done) { client.snapshot(done); });
    QVERIFY(result && !result->ok());
    QCOMPARE(result->error().kind, kind);
    QCOMPARE(result->error().errorDescription(), sentence);

    // The key is read at every call: with the right one, the next goes through.
    folder.write(QStringLiteral("support/admin-token"), m_service->token().toUtf8());
    const auto after = await<DaemonResult<Snapshot>>([&](auto done) { client.snapshot(done); });
    QVERIFY(after && after->ok());
}

void TestDaemonClient::aStoppedServiceIsNotRunning()
{
    QCOMPARE(m_service->stop(), 0);
    const auto down = await<DaemonResult<Snapshot>>([&](auto done) { m_client->snapshot(done); });
    QVERIFY(down && !down->ok());
    QCOMPARE(down->error().kind, DaemonError::Kind::NotRunning);
    QVERIFY(!DaemonClient::healthBlocking(m_service->environment(), 0.5));
}

void TestDaemonClient::blockingFormsWorkOffTheMainThread()
{
    const Environment environment = m_service->environment();
    std::optional<Health> health;
    std::optional<DaemonResult<QByteArray>> snapshot;
    QThread* worker = QThread::create([&] {
        health = DaemonClient::healthBlocking(environment, 1.5);
        snapshot
            = DaemonClient::requestBlocking(environment, Method::Get, QStringLiteral("/v1/snapshot"), std::nullopt, 8);
    });
    worker->start();
    QVERIFY(worker->wait(30000));
    delete worker;
    QVERIFY(health);
    QVERIFY(snapshot && snapshot->ok());
    QVERIFY(decodeDocument<Snapshot>(snapshot->value()));
}

void TestDaemonClient::bodiesAndHeadersOnTheWire()
{
    ScratchFolder folder;
    folder.write(QStringLiteral("support/admin-token"), "key-for-the-recorder\n");
    // A site that answers every path with an empty success, keeping what came on the wire.
    StaticSite recorder(folder.path());
    for (const QString& id :
        {QStringLiteral("x?y=1"), QStringLiteral("sessions/a%2Fb/open"), QStringLiteral("sessions/%252E%252E/open")})
        recorder.answer(QStringLiteral("/v1/") + id, 200);
    DaemonClient client(
        Environment({{QStringLiteral("TIDEWATCH_SUPPORT"), folder.path() + QStringLiteral("/support")},
                        {QStringLiteral("TIDEWATCH_LOCAL_PORT"), QString::number(recorder.serverPort())}},
            folder.path()));

    const auto send = [&](Method method, std::optional<QJsonObject> body) {
        const auto result = await<DaemonResult<QByteArray>>(
            [&](auto done) { client.request(method, QStringLiteral("/v1/x?y=1"), body, 5, done); });
        QVERIFY(result && result->ok());
    };
    send(Method::Post, std::nullopt);
    send(Method::Put, QJsonObject{{QStringLiteral("on"), true}});
    send(Method::Get, std::nullopt);
    send(Method::Delete, std::nullopt);
    QCOMPARE(recorder.wire().size(), 4);

    const auto headerOf = [](const QByteArray& request, const QByteArray& name) -> QByteArray {
        for (const QByteArray& line : request.split('\n')) {
            if (line.toLower().startsWith(name.toLower() + ':'))
                return line.mid(name.size() + 1).trimmed();
        }
        return {};
    };
    const QByteArray post = recorder.wire().at(0);
    QVERIFY(post.startsWith("POST /v1/x?y=1 HTTP/1.1\r\n"));
    QCOMPARE(headerOf(post, "Content-Type"), QByteArray("application/json"));
    QCOMPARE(headerOf(post, "Authorization"), QByteArray("Bearer key-for-the-recorder"));
    QCOMPARE(headerOf(post, "Accept"), QByteArray("application/json"));
    QVERIFY(post.endsWith("\r\n\r\n{}"));

    const QByteArray put = recorder.wire().at(1);
    QVERIFY(put.startsWith("PUT "));
    QVERIFY(put.endsWith(R"({"on":true})"));

    for (const QByteArray& request : {recorder.wire().at(2), recorder.wire().at(3)}) {
        QVERIFY(request.startsWith("GET ") || request.startsWith("DELETE "));
        QVERIFY2(headerOf(request, "Content-Type").isEmpty(), request.constData());
        QVERIFY(request.endsWith("\r\n\r\n"));
    }

    // Encoded segments reach the wire as they were encoded, not normalised away.
    for (const QString& id : {QStringLiteral("a/b"), QStringLiteral("..")}) {
        const QString path = QStringLiteral("/v1/sessions/") + DaemonClient::pathSegment(id) + QStringLiteral("/open");
        const auto result = await<DaemonResult<QByteArray>>(
            [&](auto done) { client.request(Method::Post, path, std::nullopt, 5, done); });
        QVERIFY(result && result->ok());
        QCOMPARE(recorder.requests().last(), path);
    }
}

void TestDaemonClient::pathSegmentsCannotEscape_data()
{
    QTest::addColumn<QString>("raw");
    QTest::addColumn<QString>("encoded");

    QTest::newRow("a slash is encoded") << u"a/b"_s << u"a%2Fb"_s;
    QTest::newRow("a query can't start") << u"a?x=1"_s << u"a%3Fx=1"_s;
    QTest::newRow("a fragment can't start") << u"a#b"_s << u"a%23b"_s;
    QTest::newRow("dots alone can't climb out of the segment") << u".."_s << u"%252E%252E"_s;
    QTest::newRow("one dot alone is encoded too") << u"."_s << u"%252E"_s;
    QTest::newRow("a dot inside a name stays") << u"v1.2"_s << u"v1.2"_s;
    QTest::newRow("a percent sign is itself encoded") << u"100%"_s << u"100%25"_s;
    QTest::newRow("path characters stay") << u"s1:@+"_s << u"s1:@+"_s;
    QTest::newRow("non-ASCII as UTF-8") << QStringLiteral("café") << u"caf%C3%A9"_s;
}

void TestDaemonClient::pathSegmentsCannotEscape()
{
    QFETCH(QString, raw);
    QFETCH(QString, encoded);
    QCOMPARE(DaemonClient::pathSegment(raw), encoded);
}

TIDEWATCH_E2E_MAIN(TestDaemonClient)
#include "TestDaemonClient.moc"
