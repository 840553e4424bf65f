#pragma once

#include <QDateTime>

/// Where "now" comes from. Models and loops take one, so that tests can set
/// the time by hand instead of waiting for it. Safe to read from any thread.
class Clock
{
public:
    virtual ~Clock() = default;
    virtual QDateTime now() const = 0;

    /// The system's wall clock.
    static const Clock& system();
};
