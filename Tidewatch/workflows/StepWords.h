#pragma once

#include "link/WFAutomation.h"

#include <QList>
#include <QString>

namespace WorkflowWords {

/// A step kind's name, as the Add menu and the card say it: "Ask me".
QString kindName(const QString& kind);
/// A step card's title: its kind's name, "Start a Codex session" on Codex.
QString stepTitle(const WFStep& step);
/// What a step is about, for its card: its prompt, question, command or text.
QString stepDetail(const WFStep& step);
/// The session a `continue` step works in: "Every session at work".
QString targetWords(const QString& target);

/// A web service by its preset: "Slack"; none or another is "A web address".
QString serviceName(const std::optional<QString>& preset);
/// An output's name: "Notify me and my glasses", "Slack", "briefs.md".
QString outputName(const WFOutput& output);
/// The name of a run's output whose place is gone from the automation.
QString goneOutputName(const QString& kind);

/// The automation's card in one sentence: when, what first, how many more,
/// and where it tells.
QString automationWords(const WFAutomation& automation);

/// A placeholder chip's tool tip; `before` holds the steps ahead of the one
/// being edited, which a step's token refers to.
QString placeholderWords(const QString& token, const QList<WFStep>& before);
/// A placeholder chip's name: the token itself, "Step 3’s result" for a
/// step's token, or the bare id of a step that isn't there.
QString placeholderChip(const QString& token, const QList<WFStep>& before);

} // namespace WorkflowWords
