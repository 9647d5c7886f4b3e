#include "config/own_writes.hpp"

#include <gtest/gtest.h>

namespace {

TEST(OwnWrites, AValueThatWasNeverWrittenIsSomebodyElses)
{
    OwnWrites writes;
    EXPECT_FALSE(writes.heard("Client"));
    writes.remember("Host");
    EXPECT_FALSE(writes.heard("Client"));
}

TEST(OwnWrites, TheLastWriteIsNotOutdated)
{
    OwnWrites writes;
    writes.remember("Client");
    EXPECT_FALSE(writes.heard("Client"));
}

TEST(OwnWrites, AWriteThatAnotherOneHasFollowedIsOutdated)
{
    OwnWrites writes;
    writes.remember("Client");
    writes.remember("Host");
    EXPECT_TRUE(writes.heard("Client"));
    EXPECT_FALSE(writes.heard("Host"));
}

TEST(OwnWrites, EachIsHeardOfOnce)
{
    OwnWrites writes;
    writes.remember("Client");
    writes.remember("Host");
    EXPECT_TRUE(writes.heard("Client"));
    EXPECT_FALSE(writes.heard("Client"));
}

TEST(OwnWrites, HearingOfALaterOneForgetsTheEarlierOnes)
{
    OwnWrites writes;
    writes.remember("Attic");
    writes.remember("Cellar");
    writes.remember("Kitchen");
    EXPECT_TRUE(writes.heard("Cellar"));
    EXPECT_FALSE(writes.heard("Attic"));
    EXPECT_FALSE(writes.heard("Kitchen"));
}

TEST(OwnWrites, SomebodyElsesValueInBetweenForgetsNone)
{
    OwnWrites writes;
    writes.remember("Attic");
    writes.remember("Cellar");
    EXPECT_FALSE(writes.heard("Garage"));
    EXPECT_TRUE(writes.heard("Attic"));
}

TEST(OwnWrites, AValueWrittenAgainLaterIsOutdatedUntilItsLastWriteIsHeardOf)
{
    OwnWrites writes;
    for (const char* value : {"Client", "Host", "Client"}) {
        writes.remember(value);
    }
    EXPECT_TRUE(writes.heard("Client"));
    EXPECT_TRUE(writes.heard("Host"));
    EXPECT_FALSE(writes.heard("Client"));
}

TEST(OwnWrites, ThirtyTwoAreRemembered)
{
    OwnWrites writes;
    for (int i = 0; i < 33; ++i) {
        writes.remember(std::to_string(i));
    }
    EXPECT_FALSE(writes.heard("0"));
    EXPECT_TRUE(writes.heard("1"));
}

} // namespace
