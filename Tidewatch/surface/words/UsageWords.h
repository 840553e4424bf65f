#pragma once

#include "link/Account.h"
#include "link/Codex.h"
#include "link/Usage.h"
#include "surface/words/MeterReading.h"

#include <QDateTime>
#include <QList>
#include <QLocale>
#include <QString>

#include <optional>

/// One row of the usage section: a label, an optional chip before it, and
/// the reading. Identified in lists by label and chip together.
struct Meter {
    /// "5 hours", "7 days"; shown in capitals.
    QString label;
    /// "Claude", "Codex", or a model's own label.
    std::optional<QString> chip;
    MeterReading reading;

    /// Label and chip, as the key of the meter in a list.
    QString key() const { return chip ? *chip + u'/' + label : label; }

    bool operator==(const Meter&) const = default;
};

namespace UsageWords {

/// The section's heading, "Usage"; shown in capitals.
QString heading();

/// Claude Code's meters: the 5-hour and weekly windows with their pace, then
/// a week per model. `brand` puts "Claude" on the windows, for when Codex is
/// in use beside it.
QList<Meter> claudeMeters(const std::optional<Usage>& usage, const QDateTime& now, bool brand);
/// Codex's windows, without pace; `brand` puts "Codex" on them.
QList<Meter> codexMeters(const Codex& codex, const QDateTime& now, bool brand);

/// The note beside the section's heading while Claude Code is shown.
std::optional<QString> claudeNote(const Usage& usage, const Account* account);
/// The note beside the heading when Codex stands alone; `cardTitle` is
/// whether its account card has a title.
std::optional<QString> codexAloneNote(const Codex& codex, bool cardTitle, const QDateTime& now);

/// The line that stands in place of Claude Code's meters when the numbers
/// are stale; none when they aren't.
std::optional<QString> staleLine(const Usage& usage, const Account* account);
/// "Waiting for the first numbers from Claude Code." while neither window is in.
std::optional<QString> claudeWaitingLine(const Usage& usage);
/// Says since when the per-model weeks couldn't be read.
std::optional<QString> probeLine(const Usage& usage, const QDateTime& now, const QLocale& locale);

/// The line for Codex leading alone with no meters to show.
std::optional<QString> codexLeadLine(const Codex& codex, bool lead, const QDateTime& now);
/// "Codex reached its limit", unless a meter already shows the spent window.
std::optional<QString> codexLimitedLine(const Codex& codex, const QList<Meter>& meters);

} // namespace UsageWords
