#pragma once

#include "model/Tone.h"

#include <QString>
#include <QUuid>

#include <functional>
#include <optional>

/// A question the panel asks above its content, such as "Forget this phone?".
/// Only one is open at a time; the model holds it and the views show it.
struct GlassDialog {
    /// How the work behind the primary button ends: nothing on success, else
    /// the sentence for the note line.
    using Finish = std::function<void(std::optional<QString> failure)>;

    QUuid id = QUuid::createUuid();
    /// The small line above the title.
    QString eyebrow;
    QString title;
    /// The body.
    QString line;
    /// Detail kept behind a disclosure.
    std::optional<QString> more;
    /// What the primary button means; Danger for what can't be undone.
    Tone accent = Tone::Accent;
    std::optional<QString> secondary;
    QString primary;
    /// The primary button's word while the work runs.
    std::optional<QString> busy;
    /// A check box under the body.
    std::optional<QString> option;
    /// Runs on the primary button with the check box's state, and calls `finish` once when the work ends.
    std::function<void(bool option, Finish finish)> confirm;
    /// Runs when the dialog is dismissed.
    std::function<void()> cancel;
    std::function<void()> secondaryAction;

    /// Two dialogs are the same when they are the same question, asked once.
    bool operator==(const GlassDialog& other) const { return id == other.id; }
};
