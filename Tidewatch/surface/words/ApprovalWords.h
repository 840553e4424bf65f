#pragma once

#include "link/Approval.h"
#include "link/Session.h"
#include "surface/words/Palette.h"

#include <QDateTime>
#include <QList>
#include <QString>

#include <optional>

/// The detail of an approval as it stands in its well, with the prompt mark
/// before it: "$" for a shell command, "›" for any other tool.
struct CommandWell {
    QString prompt;
    QString text;

    bool operator==(const CommandWell&) const = default;
};

/// One button of an approval card, with the decision it sends.
struct ApprovalButton {
    QString title;
    /// Empty when the title says it all.
    QString help;
    /// "allow", "always", "deny" or "session".
    QString decision;

    bool operator==(const ApprovalButton&) const = default;
};

/// How long an approval has before the service denies it.
struct ExpiryWords {
    /// "under 1m left", "4m left".
    QString text;
    /// "auto-deny in under 1m", "auto-deny in 4m", for the card's badge.
    QString badge;
    /// Amber in the last two minutes, muted before.
    Ink ink = Ink::Muted;
    /// The last two minutes: semibold at 95% opacity rather than regular at 70%.
    bool emphasised = false;

    bool operator==(const ExpiryWords&) const = default;
};

/// What a card says of an approval that is answered where it was asked.
struct TerminalAnswerWords {
    QString text;
    /// "Open terminal" when its terminal can be brought forward; empty otherwise.
    QString action;

    bool operator==(const TerminalAnswerWords&) const = default;
};

namespace ApprovalWords {

/// A tool request: kind "tool" or none at all.
bool isToolRequest(const Approval& approval);

/// `toolName`, else what the summary says before its first ":", else "Tool".
QString toolName(const Approval& approval);
/// The command, file, pattern or query from the input, else the summary.
QString detail(const Approval& approval);
CommandWell commandWell(const Approval& approval);
/// Allow, Always (when offered), Deny, then the whole-session allowance
/// (when offered), in the order they stand.
QList<ApprovalButton> buttons(const Approval& approval);

/// The summary of a question or plan, which can only be answered where it
/// was asked; `session` names the agent that asks.
QString askSummary(const Approval& approval, const Session* session);
/// The line a session shows while this approval waits.
QString waitingLine(const Approval& approval, const Session* session);

/// None when `expiresAt` is missing or already passed.
std::optional<ExpiryWords> expiry(const Approval& approval, const QDateTime& now);
/// "Unanswered approvals are denied after 10 minutes"
QString expiryHelp();

/// The folded line of an answered approval, by its kind and the decision.
QString foldedWords(const Approval& approval, const QString& decision);

/// The heading above the cards: "1 waiting", "3 waiting", or "answered"
/// once nothing waits.
QString waitingHeading(qsizetype waiting);
/// The line for approvals the cards can't show; none when `more` is 0.
std::optional<QString> moreWaiting(qsizetype more);

/// What a card says when the approval is answered in a terminal. `session`
/// is the row's own session, if the card stands in one; `phonePaired` tells
/// whether a phone can answer.
TerminalAnswerWords terminalAnswer(const Session* session, bool phonePaired);

} // namespace ApprovalWords
