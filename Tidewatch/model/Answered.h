#pragma once

#include "link/Approval.h"

#include <QDateTime>
#include <QString>

/// An approval the user has just answered, kept folded in view until the
/// service confirms it has gone.
struct Answered {
    /// The approval as it stood when it was answered.
    Approval approval;
    /// "allow", "deny", "session" or "always".
    QString decision;
    /// When the user clicked.
    QDateTime at;

    bool operator==(const Answered&) const = default;
};
