#include "ScriptProgram.h"

#include "ServiceProcess.h"

#include <QDeadlineTimer>
#include <QJsonDocument>
#include <QTest>

ScriptProgram::~ScriptProgram()
{
    if (!isRunning())
        return;
    send({{QStringLiteral("do"), QStringLiteral("end")}});
    m_process.closeWriteChannel();
    if (!m_process.waitForFinished(15000)) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

bool ScriptProgram::start(const QString& script, const QStringList& arguments)
{
    m_process.setWorkingDirectory(QStringLiteral(TIDEWATCH_SOURCE_DIR "/daemon"));
    m_process.start(ServiceProcess::nodeProgram(), QStringList{script} + arguments);
    if (m_process.waitForStarted(10000))
        return true;
    m_lastError = QStringLiteral("couldn't start %1: %2").arg(ServiceProcess::nodeProgram(), m_process.errorString());
    return false;
}

void ScriptProgram::send(const QJsonObject& command)
{
    m_process.write(QJsonDocument(command).toJson(QJsonDocument::Compact) + '\n');
    m_process.waitForBytesWritten(5000);
}

QJsonObject ScriptProgram::next(const QString& event, int timeoutMs)
{
    return nextOf({event}, timeoutMs);
}

QJsonObject ScriptProgram::nextOf(const QStringList& events, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        readEvents();
        for (qsizetype i = 0; i < m_events.size(); ++i) {
            if (events.contains(m_events.at(i).value(QStringLiteral("event")).toString()))
                return m_events.takeAt(i);
        }
        if (deadline.hasExpired() || !isRunning())
            return {};
        QTest::qWait(50);
    }
}

void ScriptProgram::readEvents()
{
    m_process.setReadChannel(QProcess::StandardOutput);
    while (m_process.canReadLine()) {
        const QJsonDocument line = QJsonDocument::fromJson(m_process.readLine());
        if (line.isObject())
            m_events.append(line.object());
    }
}

QString ScriptProgram::diagnostics()
{
    readEvents();
    QString text = QString::fromUtf8(m_process.readAllStandardError());
    for (const QJsonObject& event : m_events)
        text += QLatin1Char('\n') + QString::fromUtf8(QJsonDocument(event).toJson(QJsonDocument::Compact));
    return text;
}
