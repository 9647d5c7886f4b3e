#include "utils/event_time.hpp"

#include <ctime>

uint64_t utils_event_time_after(sd_event* event, int32_t seconds)
{
    constexpr uint32_t kUsecPerSec = 1'000'000;

    uint64_t now = 0;
    sd_event_now(event, CLOCK_MONOTONIC, &now);
    // Formed in 32 bits, unsigned so that an absurd number of seconds wraps instead of being undefined.
    const auto after = static_cast<int32_t>(static_cast<uint32_t>(seconds) * kUsecPerSec);
    return now + static_cast<uint64_t>(static_cast<int64_t>(after));
}
