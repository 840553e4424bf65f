#pragma once

#include <QJsonValue>
#include <QString>

#include <optional>

/// Every way a call to the background service fails, each with a finished
/// sentence for the person: callers show errorDescription() and add at most a
/// fixed opening of their own.
struct DaemonError {
    enum class Kind {
        Server, ///< the service refused, in its own words
        Decoding, ///< a success reply the app couldn't read
        Detail, ///< a refusal that names a field or carries a failed run
        NotRunning, ///< nothing answers on the port
        NoToken, ///< the admin key file is missing or empty
        Unauthorized, ///< the service didn't accept the admin key
        Transport, ///< any other failure of the connection, in the network stack's words
    };

    Kind kind = Kind::NotRunning;
    int status = 0;
    std::optional<QString> code;
    /// The service's message (Server, Detail), "METHOD /path" (Decoding) or the stack's words (Transport).
    QString message;
    std::optional<QString> field;
    /// The failed run a workflow request left behind, as the service sent it.
    std::optional<QJsonValue> run;

    static DaemonError server(int status, std::optional<QString> code, QString message);
    static DaemonError decoding(QString request);
    static DaemonError detail(int status, std::optional<QString> code, QString message, std::optional<QString> field,
        std::optional<QJsonValue> run);
    static DaemonError notRunning();
    static DaemonError noToken();
    static DaemonError unauthorized();
    static DaemonError transport(QString message);
    /// The answer to a call that ran out of time.
    static DaemonError timeout();

    QString errorDescription() const;
    bool isTimeout() const { return kind == Kind::Server && code == QStringLiteral("timeout"); }

    bool operator==(const DaemonError&) const = default;
};
