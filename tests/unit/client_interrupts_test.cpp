#include "client/interrupts.hpp"

#include <gtest/gtest.h>

#include <csignal>

#include <poll.h>
#include <sys/resource.h>

namespace {

using client::Interrupts;

bool is_held(int number)
{
    sigset_t held;
    ::sigprocmask(SIG_BLOCK, nullptr, &held);
    return sigismember(&held, number) == 1;
}

TEST(ClientInterrupts, AreTakenOneByOneAndHeldBackNoLongerThanTheyAreWantedFor)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        {
            const Interrupts interrupts;
            EXPECT_TRUE(is_held(number));
            EXPECT_EQ(interrupts.take(), 0);
            ::raise(number);
            pollfd waiting = {interrupts.fd(), POLLIN, 0};
            EXPECT_EQ(::poll(&waiting, 1, 0), 1);
            EXPECT_EQ(interrupts.take(), number);
            EXPECT_EQ(interrupts.take(), 0);
        }
        EXPECT_FALSE(is_held(number));
    }
}

TEST(ClientInterrupts, WhatIsIgnoredAsUnderNohupStaysIgnored)
{
    std::signal(SIGHUP, SIG_IGN);
    {
        const Interrupts interrupts;
        EXPECT_FALSE(is_held(SIGHUP));
        ::raise(SIGHUP);
        EXPECT_EQ(interrupts.take(), 0);
    }
    std::signal(SIGHUP, SIG_DFL);
}

TEST(ClientInterrupts, EndTheProgramWithoutAWordWhereThereIsNoDescriptorForThem)
{
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {.rlim_cur = 0, .rlim_max = limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const Interrupts interrupts;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        EXPECT_FALSE(is_held(number));
    }
    EXPECT_EQ(interrupts.take(), 0);
}

} // namespace
