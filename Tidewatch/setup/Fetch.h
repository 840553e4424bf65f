#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <functional>

/// Plain HTTP(S) for the installers, blocking the calling worker thread on a
/// private event loop: nothing cached, no cookies kept, no proxy assumptions
/// beyond the system's.
namespace Fetch {

struct Reply {
    /// 0 when no HTTP reply came.
    int status = 0;
    QByteArray body;
    /// The network stack's words when the transfer itself failed.
    QString error;
};

Reply get(const QUrl& url, double timeoutSeconds);

/// Streams the body into `path` (never all in memory). progress gets bytes
/// written and expected (-1 when unknown).
Reply download(const QUrl& url, const QString& path, double timeoutSeconds,
    const std::function<void(qint64 written, qint64 expected)>& progress);

} // namespace Fetch
