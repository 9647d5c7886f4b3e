#include "dbus-helper/dbus_listener.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include <dlfcn.h>
#include <systemd/sd-event.h>

#include "support/event_loop.hpp"
#include "support/private_bus.hpp"

namespace {

/** The pauses that were asked for, in seconds. */
std::vector<double> pauses;

} // namespace

/** Stands before the library's: notes the pause, and makes it none. */
extern "C" int sd_event_add_time_relative(sd_event* event, sd_event_source** source, clockid_t clock,
                                          std::uint64_t usec, std::uint64_t accuracy,
                                          sd_event_time_handler_t callback, void* userdata)
{
    static const auto kReal = reinterpret_cast<decltype(&sd_event_add_time_relative)>(
        dlsym(RTLD_NEXT, "sd_event_add_time_relative"));
    pauses.push_back(static_cast<double>(usec) / 1e6);
    return kReal(event, source, clock, 0, accuracy, callback, userdata);
}

namespace {

using DbusHelper::DbusListener;
using testing::ElementsAre;
using testing_support::EventLoop;
using testing_support::PrivateBus;

int ignore(sd_bus_message*, void*, sd_bus_error*)
{
    return 0;
}

/** Loses the bus and runs the loop until so many attempts have been put off. */
void lose_bus(PrivateBus& bus, EventLoop& loop, std::size_t attempts)
{
    pauses.clear();
    bus.stop();
    ASSERT_TRUE(loop.run_until([attempts] { return pauses.size() >= attempts; }));
}

TEST(RetryDelays, DoubleUpToHalfAMinuteAndBeginAnewWithTheNextLoss)
{
    PrivateBus bus;
    EventLoop loop;
    DbusListener listener(loop.get());
    ASSERT_EQ(listener.Connect(), 0);
    ASSERT_EQ(
        listener.ListenSignal("com.example.Sender", "", "com.example.Sender", "Happened", ignore, nullptr),
        0);

    lose_bus(bus, loop, 9);
    EXPECT_THAT(pauses, ElementsAre(1, 2, 4, 8, 16, 30, 30, 30, 30));

    bus.start();
    // A rule is taken by a bus only once the connection stands; until then it is kept for later.
    ASSERT_TRUE(loop.run_until([&] {
        const auto before = pauses.size();
        listener.Connect();
        return pauses.size() == before && listener.Connect() == 0;
    }));
    lose_bus(bus, loop, 2);
    EXPECT_THAT(pauses, ElementsAre(1, 2));
}

} // namespace
