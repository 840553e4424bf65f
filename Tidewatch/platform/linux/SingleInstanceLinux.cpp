#include "platform/Platform.h"

#include <QDir>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLockFile>
#include <QObject>
#include <QProcessEnvironment>

#include <sys/stat.h>
#include <unistd.h>

namespace platform {

namespace {

// The user's runtime folder, or a private one under the temporary folder
// where the session has none (a container, an ssh login).
QString runtimeFolder()
{
    QString runtime = QProcessEnvironment::systemEnvironment().value(QStringLiteral("XDG_RUNTIME_DIR"));
    if (QDir::isAbsolutePath(runtime) && QFileInfo(runtime).isDir())
        return runtime;
    QString fallback = QDir::tempPath() + QStringLiteral("/tidewatch-") + QString::number(getuid());
    ::mkdir(QFile::encodeName(fallback).constData(), 0700);
    return fallback;
}

} // namespace

bool handOverToRunningInstance(QObject* owner, std::function<void()> onReopen)
{
    const QString folder = runtimeFolder();
    const QString socketPath = folder + QStringLiteral("/tidewatch.socket");

    auto* lock = new QLockFile(folder + QStringLiteral("/tidewatch.lock"));
    if (!lock->tryLock(0)) {
        delete lock;
        QLocalSocket socket;
        socket.connectToServer(socketPath);
        if (socket.waitForConnected(1000)) {
            socket.write("reopen\n");
            socket.waitForBytesWritten(1000);
            socket.disconnectFromServer();
        }
        return true;
    }
    // The lock lives as long as the program: it is what the next launch finds.
    QObject::connect(owner, &QObject::destroyed, [lock] { delete lock; });

    QLocalServer::removeServer(socketPath);
    auto* server = new QLocalServer(owner);
    server->setSocketOptions(QLocalServer::UserAccessOption);
    server->listen(socketPath);
    QObject::connect(server, &QLocalServer::newConnection, server, [server, onReopen = std::move(onReopen)] {
        while (QLocalSocket* client = server->nextPendingConnection()) {
            QObject::connect(client, &QLocalSocket::readyRead, client, [client, onReopen] {
                if (client->readAll().contains("reopen") && onReopen)
                    onReopen();
                client->disconnectFromServer();
            });
            QObject::connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
        }
    });
    return false;
}

} // namespace platform
