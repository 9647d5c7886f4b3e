#include "utils/event_time.hpp"

#include <ctime>

#include <gtest/gtest.h>

namespace {

uint64_t now(sd_event* event)
{
    uint64_t usec = 0;
    EXPECT_GE(sd_event_now(event, CLOCK_MONOTONIC, &usec), 0);
    return usec;
}

/** A loop that has run once: its clock stands still until it runs again. */
class EventTime : public testing::Test
{
protected:
    EventTime() { EXPECT_GE(sd_event_new(&event), 0); }
    ~EventTime() override { sd_event_unref(event); }

    /** What the function gives within one iteration of the loop, less the loop's time. */
    int64_t after(int32_t seconds)
    {
        struct Call
        {
            int32_t seconds;
            int64_t result;
        } call = {seconds, 0};
        sd_event_source* source = nullptr;
        const auto run = [](sd_event_source* running, void* userdata) {
            auto* called = static_cast<Call*>(userdata);
            sd_event* loop = sd_event_source_get_event(running);
            called->result = static_cast<int64_t>(utils_event_time_after(loop, called->seconds) - now(loop));
            return 0;
        };
        EXPECT_GE(sd_event_add_defer(event, &source, run, &call), 0);
        EXPECT_GT(sd_event_run(event, 0), 0);
        sd_event_source_unref(source);
        return call.result;
    }

    sd_event* event = nullptr;
};

TEST_F(EventTime, IsSoManySecondsAfterTheTimeOfTheLoop)
{
    EXPECT_EQ(after(0), 0);
    EXPECT_EQ(after(1), 1'000'000);
    EXPECT_EQ(after(2), 2'000'000);
    EXPECT_EQ(after(2147), 2'147'000'000);
}

TEST_F(EventTime, IsFormedIn32Bits)
{
    EXPECT_EQ(after(2148), 2'148'000'000 - (INT64_C(1) << 32));
    EXPECT_EQ(after(4295), 32'704);
}

} // namespace
