#include "link/DaemonError.h"

DaemonError DaemonError::server(int status, std::optional<QString> code, QString message)
{
    return {Kind::Server, status, std::move(code), std::move(message), std::nullopt, std::nullopt};
}

DaemonError DaemonError::decoding(QString request)
{
    return {Kind::Decoding, 0, std::nullopt, std::move(request), std::nullopt, std::nullopt};
}

DaemonError DaemonError::detail(int status, std::optional<QString> code, QString message, std::optional<QString> field,
    std::optional<QJsonValue> run)
{
    return {Kind::Detail, status, std::move(code), std::move(message), std::move(field), std::move(run)};
}

DaemonError DaemonError::notRunning()
{
    return {Kind::NotRunning, 0, std::nullopt, {}, std::nullopt, std::nullopt};
}

DaemonError DaemonError::noToken()
{
    return {Kind::NoToken, 0, std::nullopt, {}, std::nullopt, std::nullopt};
}

DaemonError DaemonError::unauthorized()
{
    return {Kind::Unauthorized, 401, std::nullopt, {}, std::nullopt, std::nullopt};
}

DaemonError DaemonError::transport(QString message)
{
    return {Kind::Transport, 0, std::nullopt, std::move(message), std::nullopt, std::nullopt};
}

DaemonError DaemonError::timeout()
{
    return server(0, QStringLiteral("timeout"), QStringLiteral("The background service took too long to answer."));
}

QString DaemonError::errorDescription() const
{
    switch (kind) {
    case Kind::Server:
    case Kind::Detail:
    case Kind::Transport:
        return message;
    case Kind::Decoding:
        return QStringLiteral("The background service sent something unexpected (%1).").arg(message);
    case Kind::NotRunning:
        return QStringLiteral("The background service isn’t running.");
    case Kind::NoToken:
        return QStringLiteral("Tidewatch couldn’t read its admin key. Restart the background service from Setup.");
    case Kind::Unauthorized:
        return QStringLiteral("The background service didn’t accept Tidewatch’s admin key. Restart it from Setup.");
    }
    return message;
}
