#pragma once

#include "link/Account.h"
#include "link/Codex.h"
#include "link/Usage.h"
#include "model/AgentsInUse.h"
#include "surface/words/AccountWords.h"
#include "surface/words/UsageWords.h"

#include <QDateTime>
#include <QList>
#include <QLocale>
#include <QString>

#include <optional>

/// The usage section as it stands at a moment: which agents it measures, the
/// note by its heading, and each agent's lines and meters in their order.
/// Claude Code's account card goes before all of it, and is worded apart.
struct UsageSection {
    /// What the section reads.
    struct Inputs {
        const std::optional<Usage>& usage;
        const Account* account = nullptr;
        /// The Codex record to believe.
        const std::optional<Codex>& codex;
        AgentsInUse agents;
        QDateTime now;
        QLocale locale;
    };

    /// The section stands at all: an agent is there to be measured.
    bool shown = false;
    /// "while signed out", "waiting for numbers", …: beside the heading.
    std::optional<QString> note;

    /// Claude Code's part is there.
    bool claude = false;
    /// Stale numbers, or none yet: the line that stands in place of the meters.
    std::optional<QString> claudeLine;
    QList<Meter> claudeMeters;
    /// The per-model weeks couldn't be read lately.
    std::optional<QString> probeLine;

    /// Codex's part is there.
    bool codex = false;
    /// Codex's trouble as a card, where Codex stands alone and the dot is raised.
    std::optional<CodexAccountCardWords> codexCard;
    /// Codex's trouble as a sentence, wherever it has no card.
    std::optional<CodexLine> codexLine;
    /// Codex on an API key, or no numbers from it yet.
    std::optional<QString> codexLeadLine;
    QList<Meter> codexMeters;
    /// "Codex reached its limit", unless a meter shows the spent window.
    std::optional<QString> codexLimitedLine;

    static UsageSection build(const Inputs& inputs);
    /// The card is a notice of this id, dismissed like any other.
    static constexpr const char* kCodexCardId = "codex-account";
};
