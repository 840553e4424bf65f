#pragma once

#include <QList>

/// Loopback ports that were free a moment ago, distinct from each other and
/// from the real install's defaults.
QList<int> freePorts(int count);
