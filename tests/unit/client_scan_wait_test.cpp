#include "client/scan_wait.hpp"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using namespace std::chrono_literals;
using client::Deadline;
using client::kNever;
using client::ScanWait;

const Deadline kBegin = Deadline() + 1h;

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
    EXPECT_FALSE(wait.is_over(kBegin + 1999ms));
    EXPECT_TRUE(wait.is_over(kBegin + 2s));
    EXPECT_EQ(wait.next(), kBegin + 2s);
}

TEST(ClientScanWait, AnAnnouncementEndsItSoonAfter)
{
    ScanWait wait(kBegin, kNever);
    wait.announced(kBegin + 1s);
    EXPECT_TRUE(wait.has_announced());
    EXPECT_FALSE(wait.is_over(kBegin + 1299ms));
    EXPECT_TRUE(wait.is_over(kBegin + 1300ms));
    EXPECT_EQ(wait.next(), kBegin + 1300ms);
}

TEST(ClientScanWait, AFurtherPieceIsWaitedForFromTheLastOne)
{
    ScanWait wait(kBegin, kNever);
    wait.announced(kBegin + 1000ms);
    wait.announced(kBegin + 1200ms);
    EXPECT_FALSE(wait.is_over(kBegin + 1499ms));
    EXPECT_TRUE(wait.is_over(kBegin + 1500ms));
}

TEST(ClientScanWait, AnAnnouncementDoesNotOutliveTheDeadline)
{
    ScanWait wait(kBegin, kBegin + 1100ms);
    wait.announced(kBegin + 1000ms);
    EXPECT_EQ(wait.next(), kBegin + 1100ms);
    EXPECT_TRUE(wait.is_over(kBegin + 1100ms));
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
