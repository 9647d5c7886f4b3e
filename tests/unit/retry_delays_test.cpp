#include "dbus-helper/dbus_listener.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include "support/event_loop.hpp"
#include "support/private_bus.hpp"

namespace {

/** The pauses that were asked for, in seconds. */
std::vector<double> pauses;

/** What becomes of each, in microseconds. */
std::uint64_t madePause = 0;

} // namespace

/** Stands before the library's: notes the pause, and makes it another. */
extern "C" int sd_event_add_time_relative(sd_event* event, sd_event_source** source, clockid_t clock,
                                          std::uint64_t usec, std::uint64_t accuracy,
                                          sd_event_time_handler_t callback, void* userdata)
{
    static const auto kReal = reinterpret_cast<decltype(&sd_event_add_time_relative)>(
        dlsym(RTLD_NEXT, "sd_event_add_time_relative"));
    pauses.push_back(static_cast<double>(usec) / 1e6);
    return kReal(event, source, clock, madePause, accuracy, callback, userdata);
}

namespace {

using DbusHelper::DbusListener;
using testing::ElementsAre;
using testing_support::EventLoop;
using testing_support::PrivateBus;
using testing_support::settle;

constexpr const char* kSender = "com.example.Sender";

int count(sd_bus_message*, void* userdata, sd_bus_error*)
{
    ++*static_cast<int*>(userdata);
    return 0;
}

int listen(DbusListener& listener, const char* path, int& heard)
{
    return listener.ListenSignal(kSender, path, kSender, "Happened", count, &heard);
}

void emit(const BusPtr& source, const char* path)
{
    ASSERT_GE(sd_bus_emit_signal(source.get(), path, kSender, "Happened", nullptr), 0);
    settle(source.get());
}

BusPtr connect_as_sender(const PrivateBus& bus)
{
    BusPtr source = bus.connect();
    EXPECT_GE(sd_bus_request_name(source.get(), kSender, 0), 0);
    return source;
}

/** The names of all that are connected. */
std::string connected(const BusPtr& source)
{
    char** names = nullptr;
    EXPECT_GE(sd_bus_list_names(source.get(), &names, nullptr), 0);
    std::string all;
    for (char** name = names; name != nullptr && *name != nullptr; ++name) {
        all += std::string(*name) + " ";
        std::free(*name);
    }
    std::free(names);
    return all;
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
    int heard = 0;
    ASSERT_EQ(listener.ListenSignal("com.example.Absent", "", kSender, "Happened", count, &heard), 0);
    ASSERT_EQ(listen(listener, "/first", heard), 0);
    lose_bus(bus, loop, 9);
    EXPECT_THAT(pauses, ElementsAre(1, 2, 4, 8, 16, 30, 30, 30, 30));

    bus.start();
    BusPtr source = connect_as_sender(bus);
    ASSERT_TRUE(loop.run_until([&] {
        emit(source, "/first");
        return heard > 0;
    }));
    // Once the connection stands, a rule takes effect at once; until then it is kept for the next one.
    int heardLater = 0;
    ASSERT_TRUE(loop.run_until([&] {
        EXPECT_EQ(listen(listener, "/later", heardLater), 0);
        emit(source, "/later");
        return heardLater > 0;
    }));
    EXPECT_EQ(pauses.size(), 9U) << "an attempt that succeeded was put off";
    lose_bus(bus, loop, 2);
    EXPECT_THAT(pauses, ElementsAre(1, 2));
}

TEST(RetryDelays, EndWhenTheConnectionIsAskedForAndStands)
{
    PrivateBus bus;
    EventLoop loop;
    DbusListener listener(loop.get());
    ASSERT_EQ(listener.Connect(), 0);
    lose_bus(bus, loop, 2);
    bus.start();
    const BusPtr source = connect_as_sender(bus);
    ASSERT_EQ(listener.Connect(), 0);
    const std::string before = connected(source);
    int heard = 0;
    ASSERT_EQ(listen(listener, "/object", heard), 0);
    emit(source, "/object");
    EXPECT_TRUE(loop.run_until([&] { return heard > 0; }));
    while (sd_event_run(loop.get(), 0) > 0) {
    }
    EXPECT_EQ(connected(source), before) << "the connection was replaced";
    EXPECT_EQ(listener.Connect(), 0);
    lose_bus(bus, loop, 2);
    EXPECT_THAT(pauses, ElementsAre(1, 2));
}

TEST(RetryDelays, GrowWhileTheBusRefusesToAnswer)
{
    madePause = 20'000; // the bus has time for its other answers
    const std::pair<std::string, int> refusals[] = {{"GetNameOwner", -EACCES}, {"GetId", 0}};
    for (const auto& [member, whenAsked] : refusals) {
        SCOPED_TRACE(member);
        PrivateBus bus;
        EventLoop loop;
        DbusListener listener(loop.get());
        ASSERT_EQ(listener.Connect(), 0);
        int heard = 0;
        ASSERT_EQ(listen(listener, "/object", heard), 0);
        ASSERT_EQ(listen(listener, "/other", heard), 0);
        pauses.clear();
        bus.stop();
        bus.rule(R"(<deny send_interface="org.freedesktop.DBus" send_member=")" + member + R"("/>)");
        bus.start();
        ASSERT_TRUE(loop.run_until([] { return pauses.size() >= 4; }));
        EXPECT_THAT(pauses, ElementsAre(1, 2, 4, 8));
        EXPECT_EQ(listener.Connect(), whenAsked);
    }
    madePause = 0;
}

} // namespace
