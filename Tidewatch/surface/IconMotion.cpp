#include "surface/IconMotion.h"

#include <algorithm>
#include <cmath>

void IconMotion::step(bool active, double dt)
{
    if (active)
        speed = std::min(speed + dt / rampUpSeconds, 1.0);
    else if (speed > 0)
        speed = std::max(speed - dt / rampDownSeconds, crawl);
    if (speed > 0) {
        const double before = phase;
        phase += dt * speed / cycleSeconds;
        // Stopping only on a whole cycle means it never rests part-way through a turn.
        if (!active && speed <= crawl && std::floor(phase) > std::floor(before)) {
            phase = std::floor(phase);
            speed = 0;
        }
    }
    // Keeps the fraction precise over a long run.
    if (phase > 1000)
        phase -= std::floor(phase);
}
