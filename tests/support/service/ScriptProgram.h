#pragma once

#include <QJsonObject>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>

/// A Node.js program of the service's test support (daemon/test/support),
/// run by the tests' Node.js and spoken to in JSON lines: one command a line
/// in, one {"event": …} a line out.
class ScriptProgram
{
public:
    ScriptProgram() = default;
    /// Sends {"do":"end"} and waits for the program to end by itself, so
    /// that what it started goes with it; kills it after 15 s.
    ~ScriptProgram();
    ScriptProgram(const ScriptProgram&) = delete;
    ScriptProgram& operator=(const ScriptProgram&) = delete;

    /// Starts daemon/<script> with these arguments; false, with the reason in lastError(), when it can't.
    bool start(const QString& script, const QStringList& arguments);
    bool isRunning() const { return m_process.state() != QProcess::NotRunning; }

    /// One command, such as {"do":"pair","link":"…"}.
    void send(const QJsonObject& command);
    /// The next event of that name not taken yet, waited for while the
    /// test's own events run; empty when none came in time.
    QJsonObject next(const QString& event, int timeoutMs);
    /// The first event of any of these names not taken yet; empty when none came in time.
    QJsonObject nextOf(const QStringList& events, int timeoutMs);

    QString lastError() const { return m_lastError; }
    /// What the program said on its error output, and the events it gave that nobody took.
    QString diagnostics();

private:
    void readEvents();

    QProcess m_process;
    QList<QJsonObject> m_events;
    QString m_lastError;
};
