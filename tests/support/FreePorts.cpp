#include "FreePorts.h"

#include <QTcpServer>

#include <memory>
#include <vector>

QList<int> freePorts(int count)
{
    // All listeners stay open until every port is known, so none repeats.
    std::vector<std::unique_ptr<QTcpServer>> holders;
    QList<int> ports;
    while (ports.size() < count) {
        auto server = std::make_unique<QTcpServer>();
        if (!server->listen(QHostAddress::LocalHost, 0))
            break;
        const int port = server->serverPort();
        if (port != 47321 && port != 47322)
            ports << port;
        holders.push_back(std::move(server));
    }
    return ports;
}
