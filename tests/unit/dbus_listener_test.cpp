#include "dbus-helper/dbus_listener.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <systemd/sd-bus.h>
#include <unistd.h>

#include "support/event_loop.hpp"
#include "support/private_bus.hpp"

namespace {

using DbusHelper::BusType;
using DbusHelper::DbusListener;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::BusRole;
using testing_support::EventLoop;
using testing_support::PrivateBus;
using testing_support::settle;

constexpr const char* kSender = "com.example.Sender";
constexpr const char* kInterface = "com.example.Sender.Events";
constexpr const char* kMember = "Happened";

using Texts = std::vector<std::string>;

/** Notes the text that each signal carries. */
int note(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    const char* text = nullptr;
    if (sd_bus_message_read_basic(message, 's', &text) > 0) {
        static_cast<Texts*>(userdata)->emplace_back(text);
    }
    return 0;
}

void emit(sd_bus* bus, const std::string& text, const char* path = "/com/example/object")
{
    ASSERT_GE(sd_bus_emit_signal(bus, path, kInterface, kMember, "s", text.c_str()), 0);
    settle(bus);
}

/** Sends a signal straight to one connection, past the matches of the bus daemon. */
void emit_to(sd_bus* bus, const std::string& destination, const std::string& text)
{
    sd_bus_message* message = nullptr;
    ASSERT_GE(sd_bus_message_new_signal(bus, &message, "/com/example/object", kInterface, kMember), 0);
    const MessagePtr owner(message);
    ASSERT_GE(sd_bus_message_append(message, "s", text.c_str()), 0);
    ASSERT_GE(sd_bus_send_to(bus, message, destination.c_str(), nullptr), 0);
    settle(bus);
}

/** Tells one connection, in the bus daemon's words, that the sender's name is the teller's now. */
void claim_to(sd_bus* bus, const std::string& destination)
{
    const char* ownName = nullptr;
    ASSERT_GE(sd_bus_get_unique_name(bus, &ownName), 0);
    sd_bus_message* message = nullptr;
    ASSERT_GE(sd_bus_message_new_signal(bus, &message, "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                        "NameOwnerChanged"),
              0);
    const MessagePtr owner(message);
    ASSERT_GE(sd_bus_message_append(message, "sss", kSender, "", ownName), 0);
    ASSERT_GE(sd_bus_send_to(bus, message, destination.c_str(), nullptr), 0);
    settle(bus);
}

/** The unique names of all connections but those of the bus daemon and of the one that asks. */
Texts other_connections(sd_bus* bus)
{
    const char* ownName = nullptr;
    sd_bus_get_unique_name(bus, &ownName);
    char** names = nullptr;
    sd_bus_list_names(bus, &names, nullptr);
    Texts others;
    for (char** name = names; name != nullptr && *name != nullptr; ++name) {
        if (**name == ':' && std::string(*name) != ownName) {
            others.emplace_back(*name);
        }
        std::free(*name);
    }
    std::free(names);
    return others;
}

class DbusListenerTest : public testing::Test
{
protected:
    BusPtr connect_as_sender() const
    {
        BusPtr connection = bus.connect();
        EXPECT_GE(sd_bus_request_name(connection.get(), kSender, 0), 0);
        return connection;
    }

    void listen(DbusListener& listener, const std::string& path = "")
    {
        ASSERT_EQ(listener.Connect(), 0);
        ASSERT_EQ(listener.ListenSignal(kSender, path, kInterface, kMember, note, &heard), 0);
    }

    bool hears(std::size_t count) const
    {
        return loop.run_until([&] { return heard.size() >= count; });
    }

    /** Ends the bus daemon and runs the loop until the listener has noticed. */
    void lose_bus(DbusListener& listener)
    {
        bus.stop();
        // Neither connected nor refused: remembered for the connection to come.
        ASSERT_TRUE(loop.run_until([&] {
            return listener.ListenSignal(kSender, "/never", kInterface, kMember, note, &heard) == 0;
        }));
    }

    PrivateBus bus;
    EventLoop loop;
    Texts heard;
};

TEST_F(DbusListenerTest, HearsASignalOfTheSender)
{
    const BusPtr source = connect_as_sender();
    DbusListener listener(loop.get());
    listen(listener);
    emit(source.get(), "hello");
    ASSERT_TRUE(hears(1));
    EXPECT_THAT(heard, ElementsAre("hello"));
}

TEST_F(DbusListenerTest, PassesMessageUserdataAndErrorAsTheBusDoes)
{
    struct Seen
    {
        std::string path, interface, member;
        bool error = false;
    } seen;
    const BusPtr source = connect_as_sender();
    DbusListener listener(loop.get());
    ASSERT_EQ(listener.Connect(), 0);
    ASSERT_EQ(listener.ListenSignal(
                  kSender, "", kInterface, kMember,
                  [](sd_bus_message* message, void* userdata, sd_bus_error* error) {
                      *static_cast<Seen*>(userdata) = {sd_bus_message_get_path(message),
                                                       sd_bus_message_get_interface(message),
                                                       sd_bus_message_get_member(message), error != nullptr};
                      return 0;
                  },
                  &seen),
              0);
    emit(source.get(), "x");
    ASSERT_TRUE(loop.run_until([&] { return !seen.path.empty(); }));
    EXPECT_EQ(seen.path, "/com/example/object");
    EXPECT_EQ(seen.interface, kInterface);
    EXPECT_EQ(seen.member, kMember);
    EXPECT_TRUE(seen.error);
}

TEST_F(DbusListenerTest, HearsEveryObjectWithoutAPathAndOnlyTheOneWithOne)
{
    Texts fromOne;
    const BusPtr source = connect_as_sender();
    DbusListener listener(loop.get());
    listen(listener);
    ASSERT_EQ(listener.ListenSignal(kSender, "/one", kInterface, kMember, note, &fromOne), 0);
    emit(source.get(), "first", "/one");
    emit(source.get(), "second", "/two");
    emit(source.get(), "third", "/one");
    ASSERT_TRUE(hears(3));
    ASSERT_TRUE(loop.run_until([&] { return fromOne.size() >= 2; }));
    EXPECT_THAT(heard, ElementsAre("first", "second", "third"));
    EXPECT_THAT(fromOne, ElementsAre("first", "third"));
}

TEST_F(DbusListenerTest, HearsNoOtherMemberOrInterface)
{
    const BusPtr source = connect_as_sender();
    DbusListener listener(loop.get());
    listen(listener);
    ASSERT_GE(sd_bus_emit_signal(source.get(), "/o", kInterface, "Other", "s", "wrong member"), 0);
    ASSERT_GE(sd_bus_emit_signal(source.get(), "/o", "com.example.Other", kMember, "s", "wrong interface"),
              0);
    emit(source.get(), "right");
    ASSERT_TRUE(hears(1));
    EXPECT_THAT(heard, ElementsAre("right"));
}

TEST_F(DbusListenerTest, BelievesNobodyElse)
{
    const BusPtr source = connect_as_sender();
    const BusPtr liar = bus.connect();
    DbusListener listener(loop.get());
    listen(listener);
    emit(liar.get(), "broadcast lie");
    for (const std::string& destination : other_connections(liar.get())) {
        emit_to(liar.get(), destination, "whispered lie");
        claim_to(liar.get(), destination);
        emit_to(liar.get(), destination, "lie of a claimed owner");
    }
    emit(source.get(), "truth");
    ASSERT_TRUE(hears(1));
    EXPECT_THAT(heard, ElementsAre("truth"));
}

TEST_F(DbusListenerTest, BelievesNobodyWhileTheNameHasNoOwner)
{
    const BusPtr liar = bus.connect();
    DbusListener listener(loop.get());
    listen(listener);
    for (const std::string& destination : other_connections(liar.get())) {
        emit_to(liar.get(), destination, "whispered lie");
    }
    const BusPtr source = connect_as_sender();
    emit(source.get(), "truth");
    ASSERT_TRUE(hears(1));
    EXPECT_THAT(heard, ElementsAre("truth"));
}

TEST_F(DbusListenerTest, DoesNotMixUpTheSendersOfTwoRulesForTheSameSignal)
{
    Texts heardFromOther;
    const BusPtr source = connect_as_sender();
    const BusPtr other = bus.connect();
    ASSERT_GE(sd_bus_request_name(other.get(), "com.example.Other", 0), 0);
    DbusListener listener(loop.get());
    listen(listener);
    ASSERT_EQ(listener.ListenSignal("com.example.Other", "", kInterface, kMember, note, &heardFromOther), 0);
    emit(other.get(), "from the other");
    emit(source.get(), "from the sender");
    ASSERT_TRUE(hears(1));
    EXPECT_THAT(heard, ElementsAre("from the sender"));
    EXPECT_THAT(heardFromOther, ElementsAre("from the other"));
}

TEST_F(DbusListenerTest, HearsASenderThatComesLater)
{
    DbusListener listener(loop.get());
    listen(listener);
    const BusPtr source = connect_as_sender();
    emit(source.get(), "late");
    ASSERT_TRUE(hears(1));
    EXPECT_THAT(heard, ElementsAre("late"));
}

TEST_F(DbusListenerTest, HearsItsSenderThoughTheLoopWasBusyForLongerThanACallMayTake)
{
    const BusPtr source = connect_as_sender();
    ::setenv("SYSTEMD_BUS_TIMEOUT", "1s", 1);
    DbusListener listener(loop.get());
    listen(listener);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100)); // what keeps the loop busy
    emit(source.get(), "meanwhile");
    EXPECT_TRUE(hears(1));
    ::unsetenv("SYSTEMD_BUS_TIMEOUT");
    EXPECT_THAT(heard, ElementsAre("meanwhile"));
}

TEST_F(DbusListenerTest, FollowsASenderThatIsRestarted)
{
    BusPtr source = connect_as_sender();
    DbusListener listener(loop.get());
    listen(listener);
    Texts heardBySecondRule;
    ASSERT_EQ(listener.ListenSignal(kSender, "", kInterface, kMember, note, &heardBySecondRule), 0);
    emit(source.get(), "before");
    source.reset();
    source = connect_as_sender();
    emit(source.get(), "after");
    ASSERT_TRUE(hears(2));
    EXPECT_THAT(heard, ElementsAre("before", "after"));
    EXPECT_TRUE(loop.run_until([&] { return heardBySecondRule.size() >= 2; }));
}

TEST_F(DbusListenerTest, NoLongerBelievesOneThatGaveTheNameAway)
{
    const BusPtr oldSource = connect_as_sender();
    DbusListener listener(loop.get());
    listen(listener);
    emit(oldSource.get(), "as owner");
    ASSERT_GE(sd_bus_release_name(oldSource.get(), kSender), 0);
    const BusPtr newSource = connect_as_sender();
    for (const std::string& destination : other_connections(oldSource.get())) {
        emit_to(oldSource.get(), destination, "no longer owner");
    }
    emit(newSource.get(), "new owner");
    ASSERT_TRUE(hears(2));
    EXPECT_THAT(heard, ElementsAre("as owner", "new owner"));
}

TEST_F(DbusListenerTest, CallsEveryCallbackWhateverTheyReturn)
{
    Texts second;
    const BusPtr source = connect_as_sender();
    DbusListener listener(loop.get());
    ASSERT_EQ(listener.Connect(), 0);
    constexpr auto kNoteAndFail = [](sd_bus_message* message, void* userdata, sd_bus_error* error) {
        note(message, userdata, error);
        return -1;
    };
    ASSERT_EQ(listener.ListenSignal(kSender, "", kInterface, kMember, kNoteAndFail, &heard), 0);
    ASSERT_EQ(listener.ListenSignal(kSender, "", kInterface, kMember, kNoteAndFail, &second), 0);
    emit(source.get(), "one");
    emit(source.get(), "two");
    ASSERT_TRUE(loop.run_until([&] { return heard.size() == 2 && second.size() == 2; }));
}

TEST_F(DbusListenerTest, MayBeDisconnectedByItsOwnCallback)
{
    const BusPtr source = connect_as_sender();
    DbusListener listener(loop.get());
    ASSERT_EQ(listener.Connect(), 0);
    struct Context
    {
        DbusListener* listener;
        Texts heard;
    } context = {&listener, {}};
    ASSERT_EQ(listener.ListenSignal(
                  kSender, "", kInterface, kMember,
                  [](sd_bus_message* message, void* userdata, sd_bus_error* error) {
                      auto& self = *static_cast<Context*>(userdata);
                      self.listener->Disconnect();
                      return note(message, &self.heard, error);
                  },
                  &context),
              0);
    emit(source.get(), "one");
    emit(source.get(), "two");
    ASSERT_TRUE(loop.run_until([&] { return !context.heard.empty(); }));
    EXPECT_THAT(context.heard, ElementsAre("one"));
    EXPECT_EQ(listener.ListenSignal(kSender, "", kInterface, kMember, note, &heard), -ENOTCONN);
}

TEST_F(DbusListenerTest, MayBeDestroyedByItsOwnCallback)
{
    const BusPtr source = connect_as_sender();
    auto listener = std::make_unique<DbusListener>(loop.get());
    ASSERT_EQ(listener->Connect(), 0);
    ASSERT_EQ(listener->ListenSignal(
                  kSender, "", kInterface, kMember,
                  [](sd_bus_message*, void* userdata, sd_bus_error*) {
                      static_cast<std::unique_ptr<DbusListener>*>(userdata)->reset();
                      return 0;
                  },
                  &listener),
              0);
    emit(source.get(), "one");
    EXPECT_TRUE(loop.run_until([&] { return listener == nullptr; }));
}

TEST_F(DbusListenerTest, ForgetsItsRulesWhenItDisconnects)
{
    Texts heardAfterwards;
    const BusPtr source = connect_as_sender();
    DbusListener listener(loop.get());
    listen(listener);
    listener.Disconnect();
    listener.Disconnect();
    ASSERT_EQ(listener.Connect(), 0);
    ASSERT_EQ(listener.ListenSignal(kSender, "", kInterface, kMember, note, &heardAfterwards), 0);
    emit(source.get(), "hello");
    ASSERT_TRUE(loop.run_until([&] { return !heardAfterwards.empty(); }));
    EXPECT_THAT(heard, IsEmpty());
}

TEST_F(DbusListenerTest, ConnectsOnceHoweverOftenItIsAsked)
{
    const BusPtr observer = bus.connect();
    DbusListener listener(loop.get());
    EXPECT_EQ(listener.Connect(), 0);
    EXPECT_EQ(listener.Connect(), 0);
    EXPECT_EQ(other_connections(observer.get()).size(), 1U);
    listener.Disconnect();
    EXPECT_TRUE(loop.run_until([&] { return other_connections(observer.get()).empty(); }));
}

TEST_F(DbusListenerTest, RefusesToListenBeforeItIsConnected)
{
    DbusListener listener(loop.get());
    EXPECT_EQ(listener.ListenSignal(kSender, "", kInterface, kMember, note, &heard), -ENOTCONN);
}

TEST_F(DbusListenerTest, RefusesNamesThatCouldNotStandInAMatchRuleAlsoWhileTheBusIsAway)
{
    DbusListener listener(loop.get());
    ASSERT_EQ(listener.Connect(), 0);
    const auto refuse = [&] {
        EXPECT_EQ(listener.ListenSignal("", "", kInterface, kMember, note, &heard), -EINVAL);
        EXPECT_EQ(listener.ListenSignal("a.b',member='C", "", kInterface, kMember, note, &heard), -EINVAL);
        EXPECT_EQ(listener.ListenSignal(kSender, "no/slash", kInterface, kMember, note, &heard), -EINVAL);
        EXPECT_EQ(listener.ListenSignal(kSender, "", "undotted", kMember, note, &heard), -EINVAL);
        EXPECT_EQ(listener.ListenSignal(kSender, "", kInterface, "", note, &heard), -EINVAL);
        EXPECT_EQ(listener.ListenSignal(kSender, "", kInterface, kMember, nullptr, &heard), -EINVAL);
    };
    refuse();
    lose_bus(listener);
    refuse();
}

TEST_F(DbusListenerTest, IsConnectedAgainOnlyOnceItHasAllThatItListensFor)
{
    DbusListener listener(loop.get());
    listen(listener);
    bus.stop();
    EXPECT_LT(listener.ListenSignal(kSender, "", kInterface, kMember, note, &heard), 0);
    EXPECT_EQ(listener.ListenSignal(kSender, "", kInterface, kMember, note, &heard), -ENOTCONN);
    EXPECT_EQ(listener.Connect(), -ENOENT);

    bus.rule("<deny send_interface=\"org.freedesktop.DBus\" send_member=\"GetNameOwner\"/>");
    bus.start();
    EXPECT_EQ(listener.Connect(), -EACCES);
    EXPECT_EQ(listener.Connect(), -EACCES);

    bus.stop();
    bus.rule("");
    bus.start();
    EXPECT_EQ(listener.Connect(), 0);
    const BusPtr source = connect_as_sender();
    emit(source.get(), "once");
    emit(source.get(), "and again");
    ASSERT_TRUE(hears(2));
    EXPECT_THAT(heard, ElementsAre("once", "and again"));
}

TEST_F(DbusListenerTest, ReportsAFirstConnectionThatFailsAndArmsNothing)
{
    bus.stop();
    DbusListener listener(loop.get());
    EXPECT_EQ(listener.Connect(), -ENOENT);
    EXPECT_EQ(listener.ListenSignal(kSender, "", kInterface, kMember, note, &heard), -ENOTCONN);
    EXPECT_EQ(sd_event_prepare(loop.get()), 0);
    EXPECT_EQ(sd_event_wait(loop.get(), std::uint64_t{1500} * 1000), 0) << "a timer fired";
}

TEST_F(DbusListenerTest, LeavesTheLoopAsleepWhileNothingHappens)
{
    const BusPtr source = connect_as_sender();
    DbusListener listener(loop.get());
    listen(listener);
    emit(source.get(), "last");
    ASSERT_TRUE(hears(1));
    while (sd_event_run(loop.get(), 0) > 0) {
    }
    EXPECT_EQ(sd_event_run(loop.get(), std::uint64_t{1500} * 1000), 0) << "the loop woke up";
}

TEST_F(DbusListenerTest, ListensAgainAfterTheBusWasRestarted)
{
    BusPtr source = connect_as_sender();
    DbusListener listener(loop.get());
    listen(listener);
    emit(source.get(), "before");
    ASSERT_TRUE(hears(1));

    lose_bus(listener);
    source.reset();
    bus.start();
    source = connect_as_sender();
    ASSERT_TRUE(loop.run_until([&] {
        emit(source.get(), "after");
        return heard.size() >= 2;
    }));
    EXPECT_EQ(heard[0], "before");
    EXPECT_EQ(heard[1], "after");
}

TEST_F(DbusListenerTest, KeepsTryingUntilTheBusIsBack)
{
    DbusListener listener(loop.get());
    listen(listener);
    lose_bus(listener);
    // All that can happen in the loop now is the first attempt, which finds no bus.
    ASSERT_GT(sd_event_run(loop.get(), std::uint64_t{30} * 1000 * 1000), 0);
    bus.start();
    const BusPtr source = connect_as_sender();
    ASSERT_TRUE(loop.run_until([&] {
        emit(source.get(), "after");
        return !heard.empty();
    }));
}

TEST_F(DbusListenerTest, WaitsLongerForTheSecondAttempt)
{
    using Clock = std::chrono::steady_clock;
    DbusListener listener(loop.get());
    listen(listener);
    const Clock::time_point lost = Clock::now();
    lose_bus(listener);
    // The first attempt, after a second, finds nothing; the bus is back before a second one would come as
    // soon.
    ASSERT_TRUE(loop.run_until([&] { return Clock::now() - lost > std::chrono::milliseconds(1900); }));
    bus.start();
    const BusPtr source = connect_as_sender();
    ASSERT_TRUE(loop.run_until([&] {
        emit(source.get(), "hello");
        return !heard.empty();
    }));
    EXPECT_GE(Clock::now() - lost, std::chrono::seconds(3));
}

TEST_F(DbusListenerTest, AcceptsARuleWhileTheBusIsAwayAndHearsItLater)
{
    DbusListener listener(loop.get());
    ASSERT_EQ(listener.Connect(), 0);
    bus.stop();
    ASSERT_TRUE(loop.run_until(
        [&] { return listener.ListenSignal(kSender, "", kInterface, kMember, note, &heard) == 0; }));
    bus.start();
    const BusPtr source = connect_as_sender();
    ASSERT_TRUE(loop.run_until([&] {
        emit(source.get(), "hello");
        return !heard.empty();
    }));
}

TEST_F(DbusListenerTest, ConnectsAtOnceWhenAskedWhileTheBusIsAway)
{
    DbusListener listener(loop.get());
    listen(listener);
    bus.stop();
    ASSERT_TRUE(loop.run_until([&] { return listener.Connect() < 0; }));
    bus.start();
    const BusPtr source = connect_as_sender();
    ASSERT_EQ(listener.Connect(), 0);
    emit(source.get(), "hello");
    ASSERT_TRUE(hears(1));
    EXPECT_THAT(heard, ElementsAre("hello"));
}

TEST_F(DbusListenerTest, StopsTryingWhenItDisconnects)
{
    DbusListener listener(loop.get());
    ASSERT_EQ(listener.Connect(), 0);
    lose_bus(listener);
    listener.Disconnect();
    EXPECT_EQ(listener.ListenSignal(kSender, "", kInterface, kMember, note, &heard), -ENOTCONN);
    while (sd_event_run(loop.get(), 0) > 0) {
    }
    EXPECT_EQ(sd_event_run(loop.get(), std::uint64_t{1500} * 1000), 0) << "a timer fired";
}

TEST_F(DbusListenerTest, MayOutliveTheLoopOwner)
{
    auto otherLoop = std::make_unique<EventLoop>();
    DbusListener listener(otherLoop->get());
    ASSERT_EQ(listener.Connect(), 0);
    otherLoop.reset();
    listener.Disconnect();
}

TEST(DbusListenerRefused, ConnectsNothingWithoutALoop)
{
    const PrivateBus bus;
    DbusListener listener(nullptr);
    EXPECT_EQ(listener.Connect(), -EINVAL);
}

TEST(DbusListenerRefused, SaysThatNobodyTellsWhoItsSenderIsHoweverOften)
{
    const PrivateBus bus(BusRole::Both,
                         "<deny send_interface=\"org.freedesktop.DBus\" send_member=\"GetNameOwner\"/>");
    const EventLoop loop;
    DbusListener listener(loop.get());
    ASSERT_EQ(listener.Connect(), 0);
    Texts heard;
    // More often than a connection may have matches: what is refused leaves none behind.
    int refused = 0;
    while (refused < 600 &&
           listener.ListenSignal(kSender, "", kInterface, kMember, note, &heard) == -EACCES) {
        ++refused;
    }
    EXPECT_EQ(refused, 600);
}

TEST(DbusListenerBuses, AreToldApart)
{
    const PrivateBus userBus(BusRole::User);
    const PrivateBus systemBus(BusRole::System);
    const BusPtr onUserBus = userBus.connect();
    const BusPtr onSystemBus = systemBus.connect();
    ASSERT_GE(sd_bus_request_name(onUserBus.get(), kSender, 0), 0);
    ASSERT_GE(sd_bus_request_name(onSystemBus.get(), kSender, 0), 0);

    const EventLoop loop;
    Texts byDefault;
    Texts fromSystem;
    DbusListener defaultListener(loop.get());
    DbusListener systemListener(loop.get(), BusType::System);
    ASSERT_EQ(defaultListener.Connect(), 0);
    ASSERT_EQ(systemListener.Connect(), 0);
    ASSERT_EQ(defaultListener.ListenSignal(kSender, "", kInterface, kMember, note, &byDefault), 0);
    ASSERT_EQ(systemListener.ListenSignal(kSender, "", kInterface, kMember, note, &fromSystem), 0);
    emit(onUserBus.get(), "user");
    emit(onSystemBus.get(), "system");
    ASSERT_TRUE(loop.run_until([&] { return !byDefault.empty() && !fromSystem.empty(); }));
    EXPECT_THAT(byDefault, ElementsAre("user"));
    EXPECT_THAT(fromSystem, ElementsAre("system"));
}

} // namespace
