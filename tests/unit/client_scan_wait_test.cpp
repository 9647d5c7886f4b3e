#include "client/scan_wait.hpp"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using namespace std::chrono_literals;
using client::Deadline;
using client::kNever;
using client::ScanWait;

const Deadline kBegin = Deadline() + 1h;

/** The wait is over at this time and no millisecond earlier, and this is when it is looked at next. */
void expect_over_at(const ScanWait& wait, Deadline time)
{
    EXPECT_FALSE(wait.is_over(time - 1ms));
    EXPECT_TRUE(wait.is_over(time));
    EXPECT_EQ(wait.next(), time);
}

TEST(ClientScanWait, EightSecondsAreEnoughWhereNothingIsAnnounced)
{
    const ScanWait wait(kBegin, kNever);
    EXPECT_FALSE(wait.is_over(kBegin + 7999ms));
    EXPECT_TRUE(wait.is_over(kBegin + 8000ms));
    EXPECT_FALSE(wait.has_announced());
}

TEST(ClientScanWait, TheDeadlineComesFirst)
{
    const ScanWait wait(kBegin, kBegin + 2s);
    expect_over_at(wait, kBegin + 2s);
}

TEST(ClientScanWait, AnAnnouncementEndsItSoonAfter)
{
    ScanWait wait(kBegin, kNever);
    wait.announced(kBegin + 1s);
    EXPECT_TRUE(wait.has_announced());
    expect_over_at(wait, kBegin + 1300ms);
}

TEST(ClientScanWait, AFurtherPieceIsWaitedForFromTheLastOne)
{
    ScanWait wait(kBegin, kNever);
    wait.announced(kBegin + 1000ms);
    wait.announced(kBegin + 1200ms);
    expect_over_at(wait, kBegin + 1500ms);
}

TEST(ClientScanWait, AnAnnouncementDoesNotOutliveTheDeadline)
{
    ScanWait wait(kBegin, kBegin + 1100ms);
    wait.announced(kBegin + 1000ms);
    expect_over_at(wait, kBegin + 1100ms);
}

TEST(ClientScanWait, AfterThreeSilentSecondsItIsAskedForOnceMore)
{
    ScanWait wait(kBegin, kNever);
    EXPECT_EQ(wait.next(), kBegin + 3s);
    EXPECT_FALSE(wait.is_due_again(kBegin + 2999ms));
    EXPECT_TRUE(wait.is_due_again(kBegin + 3s));
    EXPECT_FALSE(wait.is_due_again(kBegin + 4s));
    EXPECT_EQ(wait.next(), kBegin + 8s);
}

TEST(ClientScanWait, WhatWasAnnouncedIsNotAskedForAgain)
{
    ScanWait wait(kBegin, kNever);
    wait.announced(kBegin + 2900ms);
    EXPECT_FALSE(wait.is_due_again(kBegin + 3s));
    EXPECT_EQ(wait.next(), kBegin + 3200ms);
}

} // namespace
