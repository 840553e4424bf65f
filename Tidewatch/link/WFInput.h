#pragma once

#include "link/WFAutomation.h"

#include <QByteArray>

/// The body of a save. There is no id: the id travels in the route.
struct WFInput {
    QString name;
    bool enabled = true;
    bool onlyOnce = false;
    WFTrigger trigger;
    QList<WFStep> steps;
    QList<WFOutput> outputs;
    /// Sent as null when none.
    std::optional<WFBudget> budget;
    /// Left out when none.
    std::optional<QString> templateName;
    // The user agreed, for this one save, to a command, to a session that
    // asks nobody, and to a paid provider. Each is sent only when true.
    bool confirmShell = false;
    bool confirmBypass = false;
    bool confirmPaid = false;

    /// The exact text of the body, keys in the service's order.
    QByteArray toJson() const;
    bool operator==(const WFInput&) const = default;
};
