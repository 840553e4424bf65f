#pragma once

#include "link/WFOutput.h"
#include "link/WFStep.h"
#include "link/WFTrigger.h"

#include <QString>

/// The records the editor makes when the user adds or changes a trigger, a
/// step or an output.
namespace NewRecords {

/// "st_" and eight random lower-case hexadecimal digits.
QString stepId();
/// "ou_" and eight random lower-case hexadecimal digits.
QString outputId();

WFTrigger trigger(const QString& kind);
/// A new step with a fresh id. `projectPath` and `providerId` are used where
/// the kind has them; a step right after an ask with answers starts on the
/// guard of its first answer.
WFStep step(
    const QString& kind, const QString& projectPath, const std::optional<QString>& providerId, const WFStep* before);
/// A new output with a fresh id.
WFOutput output(const QString& kind);

} // namespace NewRecords
