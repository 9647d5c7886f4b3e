#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>
#include <iterator>
#include <thread>
#include <vector>

#include <malloc.h>

#include "core/delayed_emission.hpp"
#include "core/heartbeat.hpp"
#include "core/main_loop.hpp"
#include "core/service.hpp"
#include "support/driven_clock.hpp"
#include "support/sd_bus_owners.hpp"

// A day on the main loop, with libsystemd's own loop and the kernel's own descriptors, in a second: only the
// clock is driven. The threads of the listeners sleep in the C++ library and in select(2), in real time; they
// are not part of this day.

namespace {

using testing_support::DrivenClock;

constexpr uint64_t kSecond = 1'000'000;
constexpr uint64_t kHour = 3600 * kSecond;
constexpr uint64_t kDay = 24 * kHour;

/** sd-event may wake up so much later than it was told to, to do several things at once. */
constexpr uint64_t kAccuracy = kSecond / 4;

constexpr int32_t kDelaySec = 2;
constexpr uint64_t kDelay = kDelaySec * kSecond;

sd_event* loop = nullptr;
DrivenClock* theClock = nullptr;
std::vector<uint64_t> emittedAt;

EventPtr new_loop()
{
    sd_event* event = nullptr;
    EXPECT_GE(sd_event_new(&event), 0);
    loop = event;
    return EventPtr(event);
}

auto open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

} // namespace

sd_event* service_event()
{
    return loop;
}

void emit_property_changed(const char*)
{
    emittedAt.push_back(theClock->now_usec());
}

namespace {

TEST(DayOfWakeUps, IdleLoopWakesUpOnceASecondAndForNothingElse)
{
    DrivenClock clock;
    const EventPtr event = new_loop();
    start_heartbeat(event.get());

    const uint64_t begin = clock.now_usec();
    uint64_t last = begin;
    uint64_t shortest = kDay;
    uint64_t longest = 0;
    while (clock.now_usec() < begin + kDay) {
        ASSERT_GT(sd_event_run(event.get(), UINT64_MAX), 0);
        shortest = std::min(shortest, clock.now_usec() - last);
        longest = std::max(longest, clock.now_usec() - last);
        last = clock.now_usec();
    }
    std::cout << clock.wake_ups() << " wake-ups in a day, " << shortest << " to " << longest << " us apart\n";
    EXPECT_GE(shortest, kSecond);
    EXPECT_LE(longest, kSecond + kAccuracy);
    EXPECT_LE(clock.wake_ups(), kDay / kSecond);
    EXPECT_GE(clock.wake_ups(), kDay / (kSecond + kAccuracy));
}

/** A day in which a station connects every 37 seconds, and another thread hands in work every minute. */
class BusyDay : public testing::Test
{
protected:
    void SetUp() override
    {
        theClock = &clock;
        emittedAt.clear();
        emittedAt.reserve(kDay / kConnect + 1);
        requestedAt.reserve(emittedAt.capacity());
        queue.attach(event.get());
        start_heartbeat(event.get());
    }

    void TearDown() override { theClock = nullptr; }

    /** Lets time go on until then. */
    void live_until(uint64_t end)
    {
        while (clock.now_usec() < end) {
            ASSERT_GT(sd_event_run(event.get(), UINT64_MAX), 0);
            if (clock.now_usec() >= nextConnect) {
                nextConnect += kConnect;
                // Of two requests in a row the second counts.
                emit_properties_later({"Mode"}, kDelaySec);
                emit_properties_later({"SSID"}, kDelaySec);
                requestedAt.push_back(clock.now_usec());
            }
            if (clock.now_usec() >= nextWork) {
                nextWork += kWork;
                ++handedIn;
                std::thread([this] { queue.post([this] { ++worked; }); }).join();
            }
        }
    }

    static constexpr uint64_t kConnect = 37 * kSecond;
    static constexpr uint64_t kWork = 60 * kSecond;

    DrivenClock clock;
    EventPtr event = new_loop();
    MainLoopQueue queue;
    const uint64_t begin = clock.now_usec();
    uint64_t nextConnect = begin + kConnect;
    uint64_t nextWork = begin + kWork;
    uint64_t handedIn = 0;
    uint64_t worked = 0;
    std::vector<uint64_t> requestedAt;
};

TEST_F(BusyDay, AnnouncesEachDelayedPropertyOnceInTimeAndKeepsNothing)
{
    live_until(begin + kHour);
    const auto descriptors = open_descriptors();
    const size_t memory = mallinfo2().uordblks;

    // Until the same point of the cycle, so that as much is pending as was then.
    live_until(begin + kDay - 5 * kSecond);
    const uint64_t lastRequest = requestedAt.back();
    live_until(lastRequest + kDelay + 2 * kSecond);

    ASSERT_EQ(emittedAt.size(), requestedAt.size());
    for (size_t i = 0; i < emittedAt.size(); ++i) {
        ASSERT_GE(emittedAt[i] - requestedAt[i], kDelay);
        ASSERT_LE(emittedAt[i] - requestedAt[i], kDelay + kAccuracy);
    }
    EXPECT_EQ(worked, handedIn);
    std::cout << clock.wake_ups() << " wake-ups, " << emittedAt.size() << " delayed announcements, " << worked
              << " works handed in\n";
    EXPECT_LE(clock.wake_ups(), kDay / kSecond + emittedAt.size());

    EXPECT_EQ(open_descriptors(), descriptors);
    // A pending announcement and the allocator's own bookkeeping, and nothing for each of thousands.
    EXPECT_LE(mallinfo2().uordblks, memory + 4096);
}

} // namespace
