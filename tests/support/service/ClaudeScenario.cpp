#include "ClaudeScenario.h"

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

bool ClaudeScenario::start()
{
    if (!m_program.start(QStringLiteral("test/support/claude-scenario.mjs"),
            {QStringLiteral("--folder"), m_folder, QStringLiteral("--support"), m_support, QStringLiteral("--mode"),
                modeWord(m_mode)})) {
        m_lastError = m_program.lastError();
        return false;
    }
    const QJsonObject first = m_program.nextOf({QStringLiteral("missing"), QStringLiteral("ready")}, 20000);
    if (first.value(QStringLiteral("event")) == QLatin1StringView("missing")) {
        m_missing = first.value(QStringLiteral("reason")).toString();
        return true;
    }
    if (!first.isEmpty()) {
        m_ready = first;
        return true;
    }
    m_lastError = QStringLiteral("the scenario didn't get ready: ") + diagnostics();
    return false;
}
