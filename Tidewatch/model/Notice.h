#pragma once

#include "model/Tone.h"
#include "workflows/WFAskItem.h"

#include <QString>
#include <QStringList>

#include <optional>

/// A standing card about this computer: something to do, until it is done or waved away.
struct Notice {
    /// The notice's stable name; also what its action is looked up by.
    QString id;
    Tone tone = Tone::Accent;
    QString title;
    std::optional<QString> line;
    /// The button's word as it reads now (its busy word while busy); none means no button.
    std::optional<QString> action;
    bool busy = false;
    std::optional<QString> help;
    bool eclipse = false;
    /// What this occurrence is: a dismissal lasts until the key changes.
    QString key;
    /// A choice row in place of a button.
    QStringList choices;
    /// The ask whose countdown the card shows as its live figure.
    std::optional<WFAskItem> ask;

    bool operator==(const Notice&) const = default;
};
