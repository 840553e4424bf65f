#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QTcpServer>
#include <QUrl>

/// A small web site on loopback that serves the files of a folder, as a
/// download site would; a path can be made to answer with another status.
class StaticSite : public QTcpServer
{
public:
    explicit StaticSite(QString root);

    QUrl base() const { return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(serverPort())); }
    /// Answers `path` with this status and no body from now on.
    void answer(const QString& path, int status) { m_statuses.insert(path, status); }
    /// The paths asked for, in order.
    const QStringList& requests() const { return m_requests; }
    /// The requests as they came on the wire, head and body.
    const QList<QByteArray>& wire() const { return m_wire; }

private:
    void serve(QTcpSocket* socket, const QByteArray& head);

    QString m_root;
    QHash<QString, int> m_statuses;
    QStringList m_requests;
    QList<QByteArray> m_wire;
};
