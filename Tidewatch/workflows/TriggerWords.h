#pragma once

#include "link/WFStep.h"
#include "link/WFTrigger.h"

#include <QString>

#include <optional>

namespace WorkflowWords {

/// When a step runs, as the condition row reads: "only if the step before
/// went fine"; with no guard, "unless the step before failed".
QString guardWords(const std::optional<WFGuard>& guard);

/// When an automation starts: "When a file is added in notes".
QString triggerWords(const WFTrigger& trigger);

} // namespace WorkflowWords
