#pragma once

#include "link/Lenient.h"

#include <QString>
#include <QStringList>

/// A run that waits at an ask step for the user's answer.
struct WFAskItem {
    QString runId;
    QString automationId;
    /// The automation's name, or "Automation".
    QString name;
    QString stepId;
    /// Empty when the service sent none.
    QString question;
    QStringList answers;
    /// The answer taken when time runs out; empty when none is named.
    QString defaultAnswer;
    /// When the default is taken.
    FlexDate until;

    bool operator==(const WFAskItem&) const = default;
};
