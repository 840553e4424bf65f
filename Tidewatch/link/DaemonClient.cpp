#include "link/DaemonClient.h"

#include "link/ServiceCalls.h"

#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QTimer>
#include <QUrl>

namespace {

constexpr double kNoTokenProbeSeconds = 1.5;
constexpr qsizetype kErrorTextLimit = 300;

QNetworkRequest baseRequest(const QUrl& url)
{
    QNetworkRequest request(url);
    // Loopback only: no cache, no redirects to follow, nothing between the app and the service.
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    request.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
    return request;
}

// Runs `done` once, whether the reply finishes or the deadline passes first.
void watch(QNetworkReply* reply, double timeoutSeconds, std::function<void(QNetworkReply*, bool timedOut)> done)
{
    auto* timer = new QTimer(reply);
    timer->setSingleShot(true);
    QObject::connect(timer, &QTimer::timeout, reply, [reply] {
        reply->setProperty("tidewatchTimedOut", true);
        reply->abort();
    });
    QObject::connect(reply, &QNetworkReply::finished, reply, [reply, done = std::move(done)] {
        done(reply, reply->property("tidewatchTimedOut").toBool());
        reply->deleteLater();
    });
    timer->start(std::max(1, int(timeoutSeconds * 1000)));
}

std::optional<QString> stringAt(const QJsonObject& object, QLatin1StringView key)
{
    const QJsonValue value = object.value(key);
    if (!value.isString())
        return std::nullopt;
    return value.toString();
}

} // namespace

DaemonClient::DaemonClient(Environment environment, QObject* parent)
    : QObject(parent)
    , m_environment(std::move(environment))
    , m_network(new QNetworkAccessManager(this))
{
    m_network->setProxy(QNetworkProxy::NoProxy);
    m_network->setCache(nullptr);
}

DaemonClient::~DaemonClient() = default;

QString DaemonClient::methodName(Method method)
{
    switch (method) {
    case Method::Get:
        return QStringLiteral("GET");
    case Method::Post:
        return QStringLiteral("POST");
    case Method::Put:
        return QStringLiteral("PUT");
    case Method::Delete:
        return QStringLiteral("DELETE");
    }
    return QStringLiteral("GET");
}

QString DaemonClient::pathSegment(const QString& raw)
{
    // The path's own characters stay; "/" and everything else that could end
    // or bend the segment is encoded. A segment of dots alone would climb a
    // level: the URL layer decodes "%2E" and drops such segments, so its
    // percent signs are encoded once more and the service sees a harmless
    // id that names nothing.
    if (!raw.isEmpty() && raw.count(QLatin1Char('.')) == raw.size())
        return QStringLiteral("%252E").repeated(raw.size());
    return QString::fromLatin1(QUrl::toPercentEncoding(raw, QByteArrayLiteral("!$&'()*+,;=:@")));
}

std::optional<QString> DaemonClient::readToken(const Environment& environment)
{
    QFile file(environment.adminTokenFile());
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QString token = QString::fromUtf8(file.readAll()).trimmed();
    if (token.isEmpty())
        return std::nullopt;
    return token;
}

std::optional<DaemonError> DaemonClient::failureFor(int httpStatus, const QByteArray& body)
{
    if (httpStatus >= 200 && httpStatus <= 299)
        return std::nullopt;
    if (httpStatus == 401)
        return DaemonError::unauthorized();

    std::optional<QString> code;
    std::optional<QString> message;
    std::optional<QString> field;
    std::optional<QJsonValue> run;
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (document.isObject()) {
        const QJsonObject outer = document.object();
        if (outer.value(QLatin1StringView("run")).isObject())
            run = outer.value(QLatin1StringView("run"));
        const QJsonValue innerValue = outer.value(QLatin1StringView("error"));
        if (innerValue.isObject()) {
            const QJsonObject inner = innerValue.toObject();
            code = stringAt(inner, QLatin1StringView("code"));
            message = stringAt(inner, QLatin1StringView("message"));
            field = stringAt(inner, QLatin1StringView("field"));
            // The run inside the error is the more precise one.
            if (inner.value(QLatin1StringView("run")).isObject())
                run = inner.value(QLatin1StringView("run"));
        }
    }
    if (!message) {
        const QString text = QString::fromUtf8(body.left(kErrorTextLimit)).trimmed();
        if (!text.isEmpty())
            message = text;
    }
    const QString sentence = message.value_or(QStringLiteral("The background service answered %1.").arg(httpStatus));
    if (field || run)
        return DaemonError::detail(httpStatus, code, sentence, field, run);
    return DaemonError::server(httpStatus, code, sentence);
}

void DaemonClient::request(Method method, const QString& path, std::optional<QJsonObject> body, double timeoutSeconds,
    Callback<QByteArray> done)
{
    const std::optional<QString> token = readToken(m_environment);
    if (!token) {
        // Without a key the question is only whether anyone is there to refuse it.
        health(kNoTokenProbeSeconds, [done = std::move(done)](const std::optional<Health>& health) {
            done(health ? DaemonError::noToken() : DaemonError::notRunning());
        });
        return;
    }
    QByteArray bytes;
    const QByteArray* payload = nullptr;
    if (body) {
        bytes = QJsonDocument(*body).toJson(QJsonDocument::Compact);
        payload = &bytes;
    } else if (method == Method::Post || method == Method::Put) {
        bytes = QByteArrayLiteral("{}");
        payload = &bytes;
    }
    send(method, path, payload, *token, timeoutSeconds, std::move(done));
}

void DaemonClient::send(Method method, const QString& path, const QByteArray* body, const QString& token,
    double timeoutSeconds, Callback<QByteArray> done)
{
    QNetworkRequest request = baseRequest(QUrl(m_environment.localBase() + path));
    request.setRawHeader(QByteArrayLiteral("Authorization"), QByteArrayLiteral("Bearer ") + token.toUtf8());
    request.setRawHeader(QByteArrayLiteral("Accept"), QByteArrayLiteral("application/json"));
    if (body)
        request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));

    const QByteArray verb = methodName(method).toLatin1();
    QNetworkReply* reply
        = body ? m_network->sendCustomRequest(request, verb, *body) : m_network->sendCustomRequest(request, verb);
    watch(reply, timeoutSeconds, [done = std::move(done)](QNetworkReply* reply, bool timedOut) {
        if (timedOut)
            return done(DaemonError::timeout());
        const QVariant statusAttribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        const QByteArray data = reply->readAll();
        if (!statusAttribute.isValid()) {
            switch (reply->error()) {
            case QNetworkReply::ConnectionRefusedError:
            case QNetworkReply::RemoteHostClosedError:
            case QNetworkReply::HostNotFoundError:
                return done(DaemonError::notRunning());
            default:
                return done(DaemonError::transport(reply->errorString()));
            }
        }
        if (auto failure = failureFor(statusAttribute.toInt(), data))
            return done(std::move(*failure));
        done(data);
    });
}

void DaemonClient::health(double timeoutSeconds, std::function<void(std::optional<Health>)> done)
{
    QNetworkReply* reply = m_network->get(baseRequest(QUrl(m_environment.healthUrl())));
    watch(reply, timeoutSeconds, [done = std::move(done)](QNetworkReply* reply, bool timedOut) {
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        if (timedOut || reply->error() != QNetworkReply::NoError || status != 200)
            return done(std::nullopt);
        std::optional<Health> health = decodeDocument<Health>(reply->readAll());
        if (!health || !health->ok.value_or(false))
            return done(std::nullopt);
        done(std::move(health));
    });
}

void DaemonClient::snapshot(Callback<Snapshot> done)
{
    ServiceCalls::snapshot().send(*this, std::move(done));
}

void DaemonClient::localStatus(bool fresh, bool qr, Callback<LocalStatus> done)
{
    ServiceCalls::localStatus(fresh, qr).send(*this, std::move(done));
}

void DaemonClient::devices(Callback<FlexList<Device>> done)
{
    ServiceCalls::devices().send(*this, std::move(done));
}

template <> std::optional<Ignored> DaemonClient::decodeReply<Ignored>(const QByteArray& body)
{
    // An ignored reply still has to be a reply: a JSON object, or nothing at all.
    if (body.trimmed().isEmpty())
        return Ignored{};
    if (!QJsonDocument::fromJson(body).isObject())
        return std::nullopt;
    return Ignored{};
}

template <> std::optional<FlexList<Device>> DaemonClient::decodeReply<FlexList<Device>>(const QByteArray& body)
{
    return decodeListDocument<Device>(body, QLatin1StringView("devices"));
}

namespace {

// Spins a private event loop until `start` reports, or the limit passes.
template <class T>
std::optional<T> waitFor(double limitSeconds, const std::function<void(std::function<void(T)>)>& start)
{
    QEventLoop loop;
    std::optional<T> result;
    bool finished = false;
    start([&](T value) {
        result = std::move(value);
        finished = true;
        loop.quit();
    });
    if (!finished) {
        QTimer::singleShot(std::max(1, int(limitSeconds * 1000)), &loop, &QEventLoop::quit);
        loop.exec();
    }
    return result;
}

} // namespace

std::optional<Health> DaemonClient::healthBlocking(const Environment& environment, double timeoutSeconds)
{
    DaemonClient client(environment);
    const auto result = waitFor<std::optional<Health>>(
        timeoutSeconds + 1, [&](auto report) { client.health(timeoutSeconds, report); });
    return result.value_or(std::nullopt);
}

DaemonResult<QByteArray> DaemonClient::requestBlocking(const Environment& environment, Method method,
    const QString& path, std::optional<QJsonObject> body, double timeoutSeconds)
{
    DaemonClient client(environment);
    auto result = waitFor<DaemonResult<QByteArray>>(timeoutSeconds + kNoTokenProbeSeconds + 1,
        [&](auto report) { client.request(method, path, std::move(body), timeoutSeconds, report); });
    if (!result)
        return DaemonError::timeout();
    return std::move(*result);
}
