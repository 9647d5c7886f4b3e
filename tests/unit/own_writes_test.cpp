#include "config/own_writes.hpp"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

namespace {

/** What has stored these values, in this order. */
OwnWrites after(std::initializer_list<const char*> values)
{
    OwnWrites writes;
    for (const char* value : values) {
        writes.remember(value);
    }
    return writes;
}

TEST(OwnWrites, AValueThatWasNeverWrittenIsSomebodyElses)
{
    OwnWrites writes;
    EXPECT_FALSE(writes.heard("Client"));
    writes.remember("Host");
    EXPECT_FALSE(writes.heard("Client"));
}

TEST(OwnWrites, TheLastWriteIsNotOutdated)
{
    OwnWrites writes = after({"Client"});
    EXPECT_FALSE(writes.heard("Client"));
}

TEST(OwnWrites, AWriteThatAnotherOneHasFollowedIsOutdated)
{
    OwnWrites writes = after({"Client", "Host"});
    EXPECT_TRUE(writes.heard("Client"));
    EXPECT_FALSE(writes.heard("Host"));
}

TEST(OwnWrites, EachIsHeardOfOnce)
{
    OwnWrites writes = after({"Client", "Host"});
    EXPECT_TRUE(writes.heard("Client"));
    EXPECT_FALSE(writes.heard("Client"));
}

TEST(OwnWrites, HearingOfALaterOneForgetsTheEarlierOnes)
{
    OwnWrites writes = after({"Attic", "Cellar", "Kitchen"});
    EXPECT_TRUE(writes.heard("Cellar"));
    EXPECT_FALSE(writes.heard("Attic"));
    EXPECT_FALSE(writes.heard("Kitchen"));
}

TEST(OwnWrites, SomebodyElsesValueInBetweenForgetsNone)
{
    OwnWrites writes = after({"Attic", "Cellar"});
    EXPECT_FALSE(writes.heard("Garage"));
    EXPECT_TRUE(writes.heard("Attic"));
}

TEST(OwnWrites, AValueWrittenAgainLaterIsOutdatedUntilItsLastWriteIsHeardOf)
{
    OwnWrites writes = after({"Client", "Host", "Client"});
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
