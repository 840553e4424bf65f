#pragma once

#include "ScriptProgram.h"

#include <QJsonObject>
#include <QString>

/// Real Claude Code for a test: daemon/test/support/claude-scenario.mjs run
/// by the tests' Node.js, with its scratch home, its Messages API stand-in
/// and the `claude` it runs, spoken to in JSON lines.
class ClaudeScenario
{
public:
    /// Shared: typed into bash with the service's shell integration, so it
    /// runs in a shared terminal, on a subscription sign-in, answered with text.
    enum class Mode { Print, Interactive, Shared };

    /// Claude Code's home and project go under folder; support is the
    /// service's support folder.
    ClaudeScenario(const QString& folder, const QString& support, Mode mode);

    /// Starts the program and waits until the home is ready, or until it says
    /// what is missing here. False, with the reason in lastError(), when it
    /// does neither.
    bool start();
    /// Why Claude Code can't run here (not installed for the tests, no tmux); empty when it can.
    QString missing() const { return m_missing; }
    /// The ready event: `home`, `project`, `claudeDir` and `target`, the file the scripted command makes.
    const QJsonObject& ready() const { return m_ready; }

    /// One command, such as {"do":"run","prompt":"…"}.
    void send(const QJsonObject& command) { m_program.send(command); }
    /// The next event of that name not taken yet, waited for while the
    /// test's own events run; empty when none came in time.
    QJsonObject next(const QString& event, int timeoutMs) { return m_program.next(event, timeoutMs); }

    QString lastError() const { return m_lastError; }
    /// What the program said on its error output, and the events it gave that nobody took.
    QString diagnostics() { return m_program.diagnostics(); }

private:
    QString m_folder;
    QString m_support;
    Mode m_mode;
    ScriptProgram m_program;
    QJsonObject m_ready;
    QString m_missing;
    QString m_lastError;
};
