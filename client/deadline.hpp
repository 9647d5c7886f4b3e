#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>

namespace client {

using Clock = std::chrono::steady_clock;

/** Until when something is waited for. */
using Deadline = Clock::time_point;

/** A deadline that never comes. */
constexpr Deadline kNever = Deadline::max();

/** What the bus library takes for "for ever". */
constexpr std::uint64_t kForEver = std::numeric_limits<std::uint64_t>::max();

/** Microseconds until then as the bus library takes them; 0 when it has passed. */
inline std::uint64_t microseconds_until(Deadline deadline)
{
    if (deadline == kNever) {
        return kForEver;
    }
    const auto left = std::chrono::ceil<std::chrono::microseconds>(deadline - Clock::now()).count();
    return static_cast<std::uint64_t>(std::max<std::int64_t>(left, 0));
}

} // namespace client
