#include "StaticSite.h"

#include <QFile>
#include <QTcpSocket>

StaticSite::StaticSite(QString root)
    : m_root(std::move(root))
{
    listen(QHostAddress::LocalHost, 0);
    connect(this, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket* socket = nextPendingConnection()) {
            auto* head = new QByteArray;
            connect(socket, &QTcpSocket::readyRead, socket, [this, socket, head] {
                *head += socket->readAll();
                const qsizetype end = head->indexOf("\r\n\r\n");
                if (end < 0)
                    return;
                qsizetype length = 0;
                for (const QByteArray& line : head->left(end).split('\n')) {
                    if (line.toLower().startsWith("content-length:"))
                        length = line.mid(15).trimmed().toLongLong();
                }
                // The whole request, its body too, before the answer.
                if (head->size() < end + 4 + length)
                    return;
                serve(socket, *head);
                head->clear();
            });
            connect(socket, &QTcpSocket::disconnected, socket, [socket, head] {
                delete head;
                socket->deleteLater();
            });
        }
    });
}

void StaticSite::serve(QTcpSocket* socket, const QByteArray& head)
{
    const QList<QByteArray> requestLine = head.left(head.indexOf("\r\n")).split(' ');
    const QString path = requestLine.size() >= 2 ? QString::fromUtf8(requestLine.at(1)) : QString();
    m_requests << path;
    m_wire << head;
    int status = m_statuses.value(path, 0);
    QByteArray body;
    if (status == 0) {
        QFile file(m_root + path);
        status = !path.contains(QStringLiteral("..")) && file.open(QIODevice::ReadOnly) ? 200 : 404;
        if (status == 200)
            body = file.readAll();
    }
    socket->write("HTTP/1.1 " + QByteArray::number(status) + " X\r\nContent-Length: " + QByteArray::number(body.size())
        + "\r\nConnection: close\r\n\r\n" + body);
    socket->disconnectFromHost();
}
