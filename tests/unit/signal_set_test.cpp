#include "support/signal_set.hpp"

#include <array>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<int> members(const sigset_t& set)
{
    std::vector<int> found;
    for (int number = 1; number <= SIGRTMAX; ++number) {
        if (sigismember(&set, number) == 1) {
            found.push_back(number);
        }
    }
    return found;
}

TEST(SignalSet, HoldsTheSignalsThatAreNamedAndNoOther)
{
    constexpr std::array kSignals = {SIGTERM, SIGCONT};

    EXPECT_EQ(members(signal_set({})), std::vector<int>());
    EXPECT_EQ(members(signal_set({SIGHUP, SIGUSR2})), (std::vector<int>{SIGHUP, SIGUSR2}));
    EXPECT_EQ(members(signal_set(kSignals)), (std::vector<int>{SIGTERM, SIGCONT}));
}

} // namespace
