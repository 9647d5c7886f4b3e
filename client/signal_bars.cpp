#include "signal_bars.hpp"

#include <algorithm>
#include <array>
#include <cstddef>

namespace client {

int signal_bars(int dbm)
{
    // Where a station of this kind changes its rate: full speed, still video, still web pages, still
    // something.
    constexpr auto kLimits = std::to_array<int>({-55, -67, -75, -85});
    return static_cast<int>(std::ranges::count_if(kLimits, [dbm](int limit) { return dbm >= limit; }));
}

std::string drawn_bars(int bars, bool unicode)
{
    constexpr auto kBlocks = std::to_array<const char*>({"▂", "▄", "▆", "█"});
    std::string drawn;
    for (std::size_t bar = 0; bar < kBlocks.size(); ++bar) {
        const bool lit = static_cast<int>(bar) < bars;
        if (unicode) {
            drawn += lit ? kBlocks[bar] : "·";
        } else {
            drawn += lit ? "#" : ".";
        }
    }
    return drawn;
}

} // namespace client
