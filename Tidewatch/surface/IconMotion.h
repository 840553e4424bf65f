#pragma once

/// The planet's spin: where it is in its quarter-turn cycle and how fast it goes.
struct IconMotion {
    /// Seconds for one cycle at full speed.
    static constexpr double cycleSeconds = 0.75;
    /// Seconds from rest to full speed.
    static constexpr double rampUpSeconds = 0.7;
    /// Seconds from full speed down to the crawl.
    static constexpr double rampDownSeconds = 1.2;
    /// The speed at which a stopping planet coasts to its rest frame.
    static constexpr double crawl = 0.3;

    /// Cycles turned: the whole part counts cycles, the fraction is the
    /// position in the cycle, and a whole number is the rest position.
    double phase = 0;
    /// Fraction of full speed, 0 to 1.
    double speed = 0;

    /// Advances by `dt` seconds. While `active` it speeds up; otherwise it
    /// slows to the crawl and stops exactly on the next whole cycle.
    void step(bool active, double dt);

    bool operator==(const IconMotion&) const = default;
};
