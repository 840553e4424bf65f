#pragma once

#include "entry/Environment.h"
#include "link/DaemonError.h"
#include "link/DaemonResult.h"
#include "link/Device.h"
#include "link/Health.h"
#include "link/Lenient.h"
#include "link/LocalStatus.h"
#include "link/Snapshot.h"

#include <QByteArray>
#include <QJsonObject>
#include <QObject>

#include <functional>
#include <optional>

class QNetworkAccessManager;
class QNetworkReply;

/// The one doorway to the background service: short HTTP calls on loopback,
/// authenticated with the admin token read afresh at every call. Replies and
/// failures arrive on the thread that owns the client; nothing is cached and
/// nothing is retried here (retrying is the model's loop).
class DaemonClient : public QObject
{
    Q_OBJECT

public:
    enum class Method { Get, Post, Put, Delete };

    template <class T> using Callback = std::function<void(DaemonResult<T>)>;

    explicit DaemonClient(Environment environment = Environment::current(), QObject* parent = nullptr);
    ~DaemonClient() override;

    /// Any call on the local port. A body-less POST or PUT sends "{}"; GET and
    /// DELETE send neither body nor content type. The 2xx reply's bytes come back.
    /// Virtual so that a test can answer as the service would, without a socket.
    virtual void request(Method method, const QString& path, std::optional<QJsonObject> body, double timeoutSeconds,
        Callback<QByteArray> done);

    /// request() with the reply decoded tolerantly as T; a reply that doesn't
    /// read is a decoding failure naming the call.
    template <class T>
    void call(Method method, const QString& path, const std::optional<QJsonObject>& body, double timeoutSeconds,
        Callback<T> done)
    {
        const QString name = methodName(method) + QLatin1Char(' ') + path;
        request(method, path, body, timeoutSeconds, [name, done = std::move(done)](DaemonResult<QByteArray> reply) {
            if (!reply.ok())
                return done(reply.error());
            std::optional<T> decoded = decodeReply<T>(reply.value());
            if (!decoded)
                return done(DaemonError::decoding(name));
            done(std::move(*decoded));
        });
    }

    /// The health probe on the API port, without a token. Gives a Health only
    /// for a 200 that reads with ok true; never fails otherwise.
    void health(double timeoutSeconds, std::function<void(std::optional<Health>)> done);

    void snapshot(Callback<Snapshot> done);
    void localStatus(bool fresh, bool qr, Callback<LocalStatus> done);
    void devices(Callback<FlexList<Device>> done);

    /// The blocking health probe, for work off any event loop (one-shot
    /// switches): it waits at most the timeout and a second more.
    static std::optional<Health> healthBlocking(const Environment& environment, double timeoutSeconds);

    /// A blocking request(), for one-shot work on a worker thread.
    static DaemonResult<QByteArray> requestBlocking(const Environment& environment, Method method, const QString& path,
        std::optional<QJsonObject> body, double timeoutSeconds);

    /// The admin key from its file, read afresh: none when the file can't be
    /// read or holds only blanks.
    static std::optional<QString> readToken(const Environment& environment);

    /// A data value made safe to stand as one path segment ("/" becomes "%2F").
    static QString pathSegment(const QString& raw);
    static QString methodName(Method method);

    /// The mapping of a finished exchange to a failure, or none for a 2xx.
    /// `httpStatus` is 0 when no HTTP reply arrived.
    static std::optional<DaemonError> failureFor(int httpStatus, const QByteArray& body);

private:
    template <class T> static std::optional<T> decodeReply(const QByteArray& body);

    void send(Method method, const QString& path, const QByteArray* body, const QString& token, double timeoutSeconds,
        Callback<QByteArray> done);

    Environment m_environment;
    QNetworkAccessManager* m_network;
};

template <class T> std::optional<T> DaemonClient::decodeReply(const QByteArray& body)
{
    return decodeDocument<T>(body);
}

template <> std::optional<Ignored> DaemonClient::decodeReply<Ignored>(const QByteArray& body);

template <> std::optional<FlexList<Device>> DaemonClient::decodeReply<FlexList<Device>>(const QByteArray& body);
