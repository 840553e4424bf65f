#include "setup/Fetch.h"

#include <QEventLoop>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTimer>

namespace Fetch {

namespace {

Reply run(const QUrl& url, double timeoutSeconds, QFile* sink, const std::function<void(qint64, qint64)>& progress)
{
    QNetworkAccessManager network;
    network.setCache(nullptr);
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    QNetworkReply* reply = network.get(request);

    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (sink) {
        QObject::connect(reply, &QNetworkReply::readyRead, &loop, [reply, sink] { sink->write(reply->readAll()); });
        QObject::connect(reply, &QNetworkReply::downloadProgress, &loop, [&progress](qint64 written, qint64 expected) {
            if (progress)
                progress(written, expected);
        });
    }
    bool timedOut = false;
    QTimer::singleShot(std::max(1, int(timeoutSeconds * 1000)), &loop, [&] {
        timedOut = true;
        reply->abort();
    });
    if (!reply->isFinished())
        loop.exec();

    Reply result;
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (sink)
        sink->write(reply->readAll());
    else
        result.body = reply->readAll();
    if (timedOut)
        result.error = QStringLiteral("The download took too long.");
    else if (result.status == 0 && reply->error() != QNetworkReply::NoError)
        result.error = reply->errorString();
    delete reply;
    return result;
}

} // namespace

Reply get(const QUrl& url, double timeoutSeconds)
{
    return run(url, timeoutSeconds, nullptr, {});
}

Reply download(
    const QUrl& url, const QString& path, double timeoutSeconds, const std::function<void(qint64, qint64)>& progress)
{
    QFile sink(path);
    if (!sink.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return {0, {}, sink.errorString()};
    Reply reply = run(url, timeoutSeconds, &sink, progress);
    if (!sink.flush() && reply.error.isEmpty())
        reply.error = sink.errorString();
    return reply;
}

} // namespace Fetch
