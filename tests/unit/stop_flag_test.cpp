#include "utils/stop_flag.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include <poll.h>
#include <sys/resource.h>

#include "support/interrupting_signals.hpp"

using namespace std::chrono_literals;

namespace {

bool readable(const StopFlag& flag)
{
    pollfd wait = {.fd = flag.fd(), .events = POLLIN, .revents = 0};
    return poll(&wait, 1, 0) == 1;
}

TEST(StopFlag, IsClearAtFirstAndItsDescriptorNotReadable)
{
    const StopFlag flag;
    EXPECT_FALSE(flag.is_set());
    EXPECT_FALSE(readable(flag));
}

TEST(StopFlag, IsSetAndReadableUntilItIsCleared)
{
    StopFlag flag;
    for (int round = 0; round < 2; ++round) {
        flag.set();
        flag.set();
        EXPECT_TRUE(flag.is_set());
        EXPECT_TRUE(readable(flag));
        EXPECT_TRUE(readable(flag));
        flag.clear();
        EXPECT_FALSE(flag.is_set());
        EXPECT_FALSE(readable(flag));
    }
    flag.clear();
    EXPECT_FALSE(flag.is_set());
}

TEST(StopFlag, AWaitForASetFlagIsOverAtOnce)
{
    StopFlag flag;
    flag.set();
    EXPECT_TRUE(flag.wait_for(1h));
}

TEST(StopFlag, AWaitEndsWhenAnotherThreadSetsTheFlag)
{
    StopFlag flag;
    std::thread setting([&] { flag.set(); });
    EXPECT_TRUE(flag.wait_for(1h));
    setting.join();
}

TEST(StopFlag, AWaitGoesOnAfterASignal)
{
    const StopFlag flag;
    const testing_support::InterruptingSignals signals;
    const auto began = std::chrono::steady_clock::now();
    EXPECT_FALSE(flag.wait_for(200ms));
    EXPECT_GE(std::chrono::steady_clock::now() - began, 200ms);
}

TEST(StopFlag, AWaitForAClearFlagLastsAsLongAsWasAsked)
{
    const StopFlag flag;
    for (const auto time : {1ms, 20ms}) {
        const auto before = std::chrono::steady_clock::now();
        EXPECT_FALSE(flag.wait_for(time));
        EXPECT_GE(std::chrono::steady_clock::now() - before, time);
    }
    EXPECT_FALSE(flag.wait_for(0ms));
    EXPECT_FALSE(flag.wait_for(-1ms));
}

TEST(StopFlag, WorksAsAPlainFlagWhenThereIsNoDescriptorLeft)
{
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {.rlim_cur = 0, .rlim_max = limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    StopFlag flag;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);

    EXPECT_EQ(flag.fd(), -1);
    flag.set();
    EXPECT_TRUE(flag.is_set());
    EXPECT_TRUE(flag.wait_for(1h));
    flag.clear();
    EXPECT_FALSE(flag.is_set());
    EXPECT_FALSE(flag.wait_for(1ms));
}

} // namespace
