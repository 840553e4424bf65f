#include "ClaudeScenario.h"

#include "ServiceProcess.h"

#include <QDeadlineTimer>
#include <QJsonDocument>
#include <QTest>

namespace {

QString modeWord(ClaudeScenario::Mode mode)
{
    switch (mode) {
    case ClaudeScenario::Mode::Interactive:
        return QStringLiteral("interactive");
    case ClaudeScenario::Mode::Shared:
        return QStringLiteral("shared");
    case ClaudeScenario::Mode::Print:
        break;
    }
    return QStringLiteral("print");
}

} // namespace

ClaudeScenario::ClaudeScenario(const QString& folder, const QString& support, Mode mode)
    : m_folder(folder)
    , m_support(support)
    , m_mode(mode)
{
}

ClaudeScenario::~ClaudeScenario()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    // Its tmux server and the running claude go with it only when it ends by itself.
    send({{QStringLiteral("do"), QStringLiteral("end")}});
    m_process.closeWriteChannel();
    if (!m_process.waitForFinished(15000)) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

bool ClaudeScenario::start()
{
    m_process.setWorkingDirectory(QStringLiteral(TIDEWATCH_SOURCE_DIR "/daemon"));
    m_process.start(ServiceProcess::nodeProgram(),
        {QStringLiteral("test/support/claude-scenario.mjs"), QStringLiteral("--folder"), m_folder,
            QStringLiteral("--support"), m_support, QStringLiteral("--mode"), modeWord(m_mode)});
    if (!m_process.waitForStarted(10000)) {
        m_lastError
            = QStringLiteral("couldn't start %1: %2").arg(ServiceProcess::nodeProgram(), m_process.errorString());
        return false;
    }
    QDeadlineTimer deadline(20000);
    while (!deadline.hasExpired()) {
        readEvents();
        for (qsizetype i = 0; i < m_events.size(); ++i) {
            const QString event = m_events.at(i).value(QStringLiteral("event")).toString();
            if (event == QLatin1StringView("missing")) {
                m_missing = m_events.takeAt(i).value(QStringLiteral("reason")).toString();
                return true;
            }
            if (event == QLatin1StringView("ready")) {
                m_ready = m_events.takeAt(i);
                return true;
            }
        }
        if (m_process.state() == QProcess::NotRunning)
            break;
        m_process.waitForReadyRead(100);
    }
    m_lastError = QStringLiteral("the scenario didn't get ready: ") + diagnostics();
    return false;
}

void ClaudeScenario::send(const QJsonObject& command)
{
    m_process.write(QJsonDocument(command).toJson(QJsonDocument::Compact) + '\n');
    m_process.waitForBytesWritten(5000);
}

QJsonObject ClaudeScenario::next(const QString& event, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        readEvents();
        for (qsizetype i = 0; i < m_events.size(); ++i) {
            if (m_events.at(i).value(QStringLiteral("event")).toString() == event)
                return m_events.takeAt(i);
        }
        if (deadline.hasExpired() || m_process.state() == QProcess::NotRunning)
            return {};
        QTest::qWait(50);
    }
}

void ClaudeScenario::readEvents()
{
    m_process.setReadChannel(QProcess::StandardOutput);
    while (m_process.canReadLine()) {
        const QJsonDocument line = QJsonDocument::fromJson(m_process.readLine());
        if (line.isObject())
            m_events.append(line.object());
    }
}

QString ClaudeScenario::diagnostics()
{
    QString text = QString::fromUtf8(m_process.readAllStandardError());
    for (const QJsonObject& event : m_events)
        text += QLatin1Char('\n') + QString::fromUtf8(QJsonDocument(event).toJson(QJsonDocument::Compact));
    return text;
}
