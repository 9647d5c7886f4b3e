#include "config/own_writes.hpp"

#include <gtest/gtest.h>

namespace {

TEST(OwnWrites, a_value_that_was_never_written_is_somebody_elses)
{
    OwnWrites writes;
    EXPECT_FALSE(writes.heard("Client"));
    writes.remember("Host");
    EXPECT_FALSE(writes.heard("Client"));
}

TEST(OwnWrites, the_last_write_is_not_outdated)
{
    OwnWrites writes;
    writes.remember("Client");
    EXPECT_FALSE(writes.heard("Client"));
}

TEST(OwnWrites, a_write_that_another_one_has_followed_is_outdated)
{
    OwnWrites writes;
    writes.remember("Client");
    writes.remember("Host");
    EXPECT_TRUE(writes.heard("Client"));
    EXPECT_FALSE(writes.heard("Host"));
}

TEST(OwnWrites, each_is_heard_of_once)
{
    OwnWrites writes;
    writes.remember("Client");
    writes.remember("Host");
    EXPECT_TRUE(writes.heard("Client"));
    EXPECT_FALSE(writes.heard("Client"));
}

TEST(OwnWrites, hearing_of_a_later_one_forgets_the_earlier_ones)
{
    OwnWrites writes;
    writes.remember("Attic");
    writes.remember("Cellar");
    writes.remember("Kitchen");
    EXPECT_TRUE(writes.heard("Cellar"));
    EXPECT_FALSE(writes.heard("Attic"));
    EXPECT_FALSE(writes.heard("Kitchen"));
}

TEST(OwnWrites, somebody_elses_value_in_between_forgets_none)
{
    OwnWrites writes;
    writes.remember("Attic");
    writes.remember("Cellar");
    EXPECT_FALSE(writes.heard("Garage"));
    EXPECT_TRUE(writes.heard("Attic"));
}

TEST(OwnWrites, a_value_written_again_later_is_outdated_until_its_last_write_is_heard_of)
{
    OwnWrites writes;
    for (const char* value : {"Client", "Host", "Client"}) {
        writes.remember(value);
    }
    EXPECT_TRUE(writes.heard("Client"));
    EXPECT_TRUE(writes.heard("Host"));
    EXPECT_FALSE(writes.heard("Client"));
}

TEST(OwnWrites, thirty_two_are_remembered)
{
    OwnWrites writes;
    for (int i = 0; i < 33; ++i) {
        writes.remember(std::to_string(i));
    }
    EXPECT_FALSE(writes.heard("0"));
    EXPECT_TRUE(writes.heard("1"));
}

} // namespace
