#pragma once

#include <algorithm>
#include <chrono>

namespace doctor {

/**
 * How long everything together may take. Whoever waits takes a share of it, so that many neighbours that hang
 * do not add up: when it is used up, every further wait is over at once.
 */
class Patience
{
public:
    using Clock = std::chrono::steady_clock;
    using Milliseconds = std::chrono::milliseconds;

    explicit Patience(Milliseconds total) : end_(Clock::now() + total) {}

    /** The time for one wait: what it would like to have, or what is left. */
    Milliseconds share(Milliseconds wanted) const
    {
        const auto left = std::chrono::duration_cast<Milliseconds>(end_ - Clock::now());
        return std::clamp(left, Milliseconds::zero(), wanted);
    }

private:
    Clock::time_point end_;
};

} // namespace doctor
