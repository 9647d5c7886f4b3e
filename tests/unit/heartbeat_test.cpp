#include "core/heartbeat.hpp"

#include <gtest/gtest.h>

#include <ctime>
#include <optional>

#include <systemd/sd-event.h>

// The heartbeat on a loop whose clock and timers are replaced.

namespace {

constexpr uint64_t kNow = 7'000'000;

/** The one timer that was added, and what its callback did to it. */
struct Timer
{
    clockid_t clock = CLOCK_REALTIME;
    uint64_t when = 0;
    uint64_t accuracy = 4711;
    sd_event_time_handler_t callback = nullptr;
    int enabled = SD_EVENT_OFF;
};
std::optional<Timer> timer;
uint64_t now = kNow;

} // namespace

extern "C" {

int sd_event_now(sd_event*, clockid_t clock, uint64_t* usec)
{
    EXPECT_EQ(clock, CLOCK_MONOTONIC);
    *usec = now;
    return 0;
}

int sd_event_add_time(sd_event*, sd_event_source** source, clockid_t clock, uint64_t usec, uint64_t accuracy,
                      sd_event_time_handler_t callback, void*)
{
    EXPECT_FALSE(timer.has_value());
    timer = Timer{.clock = clock,
                  .when = usec,
                  .accuracy = accuracy,
                  .callback = callback,
                  .enabled = SD_EVENT_ONESHOT};
    *source = nullptr;
    return 0;
}

sd_event* sd_event_source_get_event(sd_event_source*)
{
    return nullptr;
}

int sd_event_source_set_time(sd_event_source*, uint64_t usec)
{
    timer->when = usec;
    return 0;
}

int sd_event_source_set_enabled(sd_event_source*, int enabled)
{
    timer->enabled = enabled;
    return 0;
}

} // extern "C"

TEST(Heartbeat, BeatsASecondFromNowWithNoLatenessAskedForAndAgainASecondLater)
{
    start_heartbeat(nullptr);
    ASSERT_TRUE(timer.has_value());
    EXPECT_EQ(timer->clock, CLOCK_MONOTONIC);
    EXPECT_EQ(timer->when, kNow + 1'000'000);
    EXPECT_EQ(timer->accuracy, 0U);

    now = kNow + 1'200'000;
    EXPECT_EQ(timer->callback(nullptr, timer->when, nullptr), 0);
    EXPECT_EQ(timer->when, kNow + 2'200'000);
    EXPECT_EQ(timer->enabled, SD_EVENT_ON);
}
