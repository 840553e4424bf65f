#pragma once

#include "entry/Environment.h"

#include <QByteArray>
#include <QJsonValue>
#include <QProcess>
#include <QString>

/// The real background service from daemon/, run as an isolated test copy:
/// its support and log folders inside a scratch root, on free loopback ports.
class ServiceProcess
{
public:
    /// Chooses free ports; the folders live under root.
    explicit ServiceProcess(const QString& root);
    ~ServiceProcess();

    /// A variable more for the service's own environment, from the next start() on
    /// (such as CLAUDE_CONFIG_DIR, to connect a scratch home's Claude Code).
    void setVariable(const QString& name, const QString& value) { m_more.insert(name, value); }

    /// Starts the service and waits until its health answers. False, with
    /// the reason and the service's output in lastError(), when it doesn't.
    bool start();
    /// Ends it with SIGTERM and waits; gives its exit code.
    int stop();
    /// Ends it at once, as a crash would.
    void kill();
    bool isRunning() const { return m_process.state() != QProcess::NotRunning; }

    /// The environment the app sees as the same test copy.
    Environment environment() const;
    /// The variables the app is started with (a test copy's four and the XDG folders).
    QHash<QString, QString> variables() const;

    int apiPort() const { return m_apiPort; }
    int localPort() const { return m_localPort; }
    QString supportFolder() const { return m_root + QStringLiteral("/support"); }
    QString token() const;
    QString lastError() const { return m_lastError; }

    /// A call on the service's /qa interface (or any local route), with the
    /// token, that must succeed; a failure is recorded as a test failure.
    QJsonValue qa(const QByteArray& method, const QString& path, const QJsonValue& body = QJsonValue::Undefined) const;

    /// True once every fault planted through /qa/faults has been used.
    bool faultsSpent() const;

    /// The Node.js the tests run the service on.
    static QString nodeProgram();

private:
    QString m_root;
    int m_apiPort = 0;
    int m_localPort = 0;
    QProcess m_process;
    QHash<QString, QString> m_more;
    QString m_lastError;
};
