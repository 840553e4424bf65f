#pragma once

#include "workflows/WFAskItem.h"

#include <QDateTime>
#include <QString>

#include <optional>

namespace WorkflowWords {

/// One line of at most `max` characters: line ends become single spaces,
/// and a longer text is cut at its last space and ends in "…".
QString clip(const QString& text, qsizetype max);

/// The default answer and the time left to it: "Skip in 9m", and in the last
/// two minutes in seconds, "Skip in 90s". None without a default.
std::optional<QString> countdown(const WFAskItem& ask, const QDateTime& now);

} // namespace WorkflowWords
