#pragma once

#include "entry/Environment.h"

#include <QString>

#include <functional>

/// The headless steps that set Backpack's permission up and take it away,
/// printing a line as each phase begins. Each returns the process's exit status.
namespace BackpackSteps {

using Print = std::function<void(const QString& line)>;

int setUp(const Environment& environment, const QString& user, const Print& print);
int remove(const Environment& environment, const Print& print);

} // namespace BackpackSteps
