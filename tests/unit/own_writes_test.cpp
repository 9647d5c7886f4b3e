#include "config/own_writes.hpp"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace {

TEST(OwnWrites, AValueThatWasNeverWrittenIsSomebodyElses)
{
    OwnWrites writes;
    EXPECT_FALSE(writes.heard("Client"));
    writes.remember("Host");
    EXPECT_FALSE(writes.heard("Client"));
}

/** Values that were stored in this order, and which of those then heard of is outdated. */
struct Course
{
    const char* name;
    std::vector<const char*> stored;
    std::vector<std::pair<const char*, bool>> heard;
};

void PrintTo(const Course& course, std::ostream* out)
{
    *out << course.name;
}

class OwnWritesHeardOf : public testing::TestWithParam<Course>
{
};

TEST_P(OwnWritesHeardOf, AreOutdatedOrNot)
{
    OwnWrites writes;
    for (const char* value : GetParam().stored) {
        writes.remember(value);
    }
    for (const auto& [value, outdated] : GetParam().heard) {
        EXPECT_EQ(writes.heard(value), outdated) << value;
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, OwnWritesHeardOf,
    testing::Values(Course{"TheLastWriteIsNotOutdated", {"Client"}, {{"Client", false}}},
                    Course{"AWriteThatAnotherOneHasFollowedIsOutdated",
                           {"Client", "Host"},
                           {{"Client", true}, {"Host", false}}},
                    Course{"EachIsHeardOfOnce", {"Client", "Host"}, {{"Client", true}, {"Client", false}}},
                    Course{"HearingOfALaterOneForgetsTheEarlierOnes",
                           {"Attic", "Cellar", "Kitchen"},
                           {{"Cellar", true}, {"Attic", false}, {"Kitchen", false}}},
                    Course{"SomebodyElsesValueInBetweenForgetsNone",
                           {"Attic", "Cellar"},
                           {{"Garage", false}, {"Attic", true}}},
                    Course{"AValueWrittenAgainLaterIsOutdatedUntilItsLastWriteIsHeardOf",
                           {"Client", "Host", "Client"},
                           {{"Client", true}, {"Host", true}, {"Client", false}}}),
    [](const auto& tested) { return tested.param.name; });

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
