// The client's connection: how long it waits, what ends a wait, and what becomes of questions that nobody
// answers.

#include "client/daemon.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/daemon_names.hpp"
#include "support/interrupting_signals.hpp"
#include "support/private_bus.hpp"
#include "support/unique_fd.hpp"

namespace {

using namespace std::chrono_literals;
using client::Clock;
using client::Daemon;
using client::Deadline;
using client::ExitStatus;
using client::Failure;
using client::Json;
using client::kNever;
using client::Result;
using testing_support::InterruptingSignals;
using testing_support::PrivateBus;

template <typename Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/** What the bus library is asked for in between; each is passed on where nobody wants it. */
struct
{
    std::function<int(std::uint64_t*)> timeout;
    std::function<void(std::uint64_t)> called;
    std::function<std::string(const std::string&)> address;
} hooks;

/** Wants something only as long as it lives. */
struct Unhooked
{
    ~Unhooked() { hooks = {}; }
};

} // namespace

extern "C" {

int sd_bus_get_timeout(sd_bus* bus, std::uint64_t* moment)
{
    return hooks.timeout ? hooks.timeout(moment)
                         : next<decltype(sd_bus_get_timeout)>("sd_bus_get_timeout")(bus, moment);
}

int sd_bus_call_async(sd_bus* bus, sd_bus_slot** slot, sd_bus_message* message,
                      sd_bus_message_handler_t handler, void* userdata, std::uint64_t patience)
{
    if (hooks.called) {
        hooks.called(patience);
    }
    return next<decltype(sd_bus_call_async)>("sd_bus_call_async")(bus, slot, message, handler, userdata,
                                                                  patience);
}

int sd_bus_set_address(sd_bus* bus, const char* address)
{
    const std::string taken = hooks.address ? hooks.address(address) : address;
    return next<decltype(sd_bus_set_address)>("sd_bus_set_address")(bus, taken.c_str());
}
}

namespace {

/** A bus on which the daemon's name has an owner who says nothing. */
class ClientDaemon : public testing::Test
{
protected:
    ClientDaemon()
    {
        auto connected = Daemon::connect(Clock::now() + 20s);
        EXPECT_TRUE(connected);
        daemon = std::move(connected.value());
        // The bus's word of the new connection has come before its answer.
        EXPECT_EQ(daemon->get("Mode", Clock::now() + 20s).failure().status, ExitStatus::Unreachable);
        for (int step = 0; step < 5; ++step) {
            EXPECT_FALSE(daemon->step(Clock::now()));
        }
        EXPECT_GE(sd_bus_request_name(owner.get(), client::kName, 0), 0);
        std::array<int, 2> both{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, both.data()), 0);
        ours = UniqueFd(both[0]);
        theirs = UniqueFd(both[1]);
    }

    /** Steps of the given length until one has lasted to its end: what the bus says of itself ends the first.
     */
    bool lasts(std::chrono::milliseconds length)
    {
        for (int attempt = 0; attempt < 10; ++attempt) {
            const Deadline deadline = Clock::now() + length;
            EXPECT_FALSE(daemon->step(deadline));
            if (Clock::now() >= deadline) {
                return true;
            }
        }
        return false;
    }

    /** Waits for the question, and until the bus has passed on that nobody answers it. */
    void refuse_question() const
    {
        for (bool refused = false; !refused;) {
            sd_bus_message* taken = nullptr;
            if (sd_bus_process(owner.get(), &taken) == 0) {
                sd_bus_wait(owner.get(), 1'000'000);
            }
            const MessagePtr question(taken);
            refused = taken != nullptr && sd_bus_reply_method_errorf(taken, SD_BUS_ERROR_FAILED, "No") >= 0;
        }
        testing_support::settle(owner.get());
    }

    PrivateBus bus{testing_support::BusRole::User};
    BusPtr owner = bus.connect();
    std::unique_ptr<Daemon> daemon;
    UniqueFd ours;
    UniqueFd theirs;
};

TEST_F(ClientDaemon, AStepLastsUntilItsDeadlineWhereNothingHappens)
{
    EXPECT_TRUE(lasts(50ms));
    const auto began = Clock::now();
    EXPECT_FALSE(daemon->step(began));
    EXPECT_FALSE(daemon->step(began - 1s)) << "a deadline that has passed";
    EXPECT_LT(Clock::now() - began, 10s);
}

TEST_F(ClientDaemon, ASignalThatIsHandledDoesNotEndAStep)
{
    EXPECT_TRUE(lasts(1ms));
    const InterruptingSignals signals;
    const Deadline deadline = Clock::now() + 100ms;
    EXPECT_FALSE(daemon->step(deadline));
    EXPECT_GE(Clock::now(), deadline);
}

TEST_F(ClientDaemon, AnotherDescriptorEndsAStepAndIsTold)
{
    EXPECT_TRUE(lasts(1ms));
    std::array<pollfd, 2> others = {{{ours.get(), POLLIN, 0}, {theirs.get(), POLLIN, 0}}};
    EXPECT_FALSE(daemon->step(Clock::now() + 20ms, others));
    EXPECT_EQ(others[0].revents | others[1].revents, 0);
    EXPECT_EQ(::write(theirs.get(), "x", 1), 1);
    for (const Deadline deadline : {kNever, Clock::now() + 20s}) {
        EXPECT_FALSE(daemon->step(deadline, others));
        EXPECT_EQ(others[0].revents, POLLIN);
        EXPECT_EQ(others[1].revents, 0);
    }
    // While a question is under way, too, and before its answer, so that a busy bus does not keep anybody
    // waiting.
    bool answered = false;
    daemon->get_later(
        "Mode", [&](const Result<Json>&) { answered = true; }, Clock::now() + 20s);
    EXPECT_FALSE(daemon->step(kNever, others));
    EXPECT_EQ(others[0].revents, POLLIN);
    refuse_question();
    EXPECT_FALSE(daemon->step(kNever, others));
    EXPECT_FALSE(answered);
    EXPECT_FALSE(daemon->step(Clock::now() + 20s));
    EXPECT_TRUE(answered);
}

TEST_F(ClientDaemon, WhatComesWhileAStepWaitsEndsItAndIsTold)
{
    EXPECT_TRUE(lasts(1ms));
    const Unhooked unhooked;
    std::array<pollfd, 1> others = {{{ours.get(), POLLIN, 0}}};
    hooks.timeout = [&](std::uint64_t*) {
        EXPECT_EQ(::write(theirs.get(), "x", 1), 1);
        hooks.timeout = {};
        return 0;
    };
    EXPECT_FALSE(daemon->step(Clock::now() + 20s, others));
    EXPECT_EQ(others[0].revents, POLLIN);

    others = {{{theirs.get(), POLLIN, 0}}};
    bool answered = false;
    daemon->get_later(
        "Mode", [&](const Result<Json>& mode) { answered = !mode; }, kNever);
    hooks.timeout = [&](std::uint64_t*) {
        owner.reset();
        hooks.timeout = {};
        return 0;
    };
    EXPECT_FALSE(daemon->step(Clock::now() + 20s, others));
    EXPECT_TRUE(answered) << "what comes from the bus is handled by the same step";
}

TEST_F(ClientDaemon, AStepGoesOnAfterATimeOfTheBusLibrarysOwn)
{
    EXPECT_TRUE(lasts(1ms));
    const Unhooked unhooked;
    const auto began = Clock::now();
    const auto wanted = began + 30ms;
    int asked = 0;
    hooks.timeout = [&](std::uint64_t* moment) {
        ++asked;
        *moment = static_cast<std::uint64_t>(
            std::chrono::ceil<std::chrono::microseconds>(wanted.time_since_epoch()).count());
        if (Clock::now() >= wanted) {
            hooks.timeout = [&](std::uint64_t*) { return -EIO; };
        }
        return 0;
    };
    const auto failure = daemon->step(began + 20s);
    EXPECT_GE(Clock::now(), wanted);
    EXPECT_LT(Clock::now(), began + 10s);
    EXPECT_LT(asked, 10) << "it waits, and does not look again and again";
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->text, "the user bus cannot be reached: Input/output error");
}

TEST_F(ClientDaemon, AQuestionThatNobodyAnswersEndsWithItsTime)
{
    const auto late = daemon->get("Mode", Clock::now() + 30ms);
    ASSERT_FALSE(late);
    EXPECT_EQ(late.failure().status, ExitStatus::TimedOut);
    const auto never = daemon->get("Mode", Clock::now() - 1s);
    ASSERT_FALSE(never);
    EXPECT_EQ(never.failure().status, ExitStatus::TimedOut);
    EXPECT_EQ(never.failure().text, "the daemon did not answer in time");
    EXPECT_EQ(daemon->set("Mode", 's', "Host", Clock::now())->status, ExitStatus::TimedOut);
    EXPECT_EQ(daemon->call("Scan", Clock::now())->status, ExitStatus::TimedOut);
    EXPECT_EQ(daemon->follow({}, Clock::now())->status, ExitStatus::TimedOut);
}

TEST_F(ClientDaemon, WhoeverAskedWithoutWaitingWatchesTheTimeAndNotTheBus)
{
    std::optional<Failure> told;
    daemon->call_later(
        "Scan", {}, [&](const std::optional<Failure>& failure) { told = failure; }, Clock::now() + 10ms);
    EXPECT_TRUE(lasts(100ms));
    EXPECT_FALSE(told);
    owner.reset();
    const Deadline deadline = Clock::now() + 20s;
    while (!told && Clock::now() < deadline) {
        EXPECT_FALSE(daemon->step(deadline));
    }
    ASSERT_TRUE(told);
    EXPECT_EQ(told->status, ExitStatus::Unreachable) << "it has died";
}

TEST_F(ClientDaemon, TheBusLibrarysOwnPatienceIsLonger)
{
    const Unhooked unhooked;
    std::uint64_t patience = 0;
    hooks.called = [&](std::uint64_t microseconds) { patience = microseconds; };
    const auto ignored = [](const std::optional<Failure>&) {};
    daemon->call_later("Scan", {}, ignored, Clock::now() + 1h);
    EXPECT_GT(patience, 3'600'000'000);
    EXPECT_LE(patience, 3'605'000'000);
    daemon->call_later("Scan", {}, ignored, kNever);
    EXPECT_EQ(patience, client::kForEver);
}

TEST_F(ClientDaemon, WithoutAnyWordTheUsersOwnPlaceIsTried)
{
    const Unhooked unhooked;
    std::string tried;
    std::string taken = bus.address();
    hooks.address = [&](const std::string& address) {
        tried = address;
        return taken;
    };
    const std::string told = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    ::unsetenv("XDG_RUNTIME_DIR");
    const auto there = Daemon::connect(Clock::now() + 20s);
    const std::string own = "unix:path=/run/user/" + std::to_string(::getuid()) + "/bus";
    EXPECT_EQ(tried, own);
    taken = "unix:path=/nonexistent";
    const auto absent = Daemon::connect(Clock::now() + 20s);
    tried.clear();
    ::setenv("XDG_RUNTIME_DIR", "/nonexistent", 1);
    const auto elsewhere = Daemon::connect(Clock::now() + 20s);
    ::unsetenv("XDG_RUNTIME_DIR");
    ::setenv("DBUS_SESSION_BUS_ADDRESS", told.c_str(), 1);

    ASSERT_TRUE(there);
    EXPECT_FALSE(there.value()->follow({}, Clock::now() + 20s));
    for (const auto* const failed : {&absent, &elsewhere}) {
        ASSERT_FALSE(*failed);
        EXPECT_EQ(failed->failure().text, "the user bus cannot be reached: No such file or directory");
    }
    EXPECT_NE(tried, own);
}

TEST_F(ClientDaemon, ADaemonIsFollowedBeforeItIsThere)
{
    owner.reset();
    EXPECT_FALSE(daemon->follow({}, Clock::now() + 20s));
}

TEST(ClientFollows, ABusThatDoesNotSayWhoHasTheNameIsAFailure)
{
    const PrivateBus bus(
        testing_support::BusRole::User,
        "<deny send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus\" "
        "send_member=\"GetNameOwner\"/>");
    const auto daemon = Daemon::connect(Clock::now() + 20s);
    ASSERT_TRUE(daemon);
    const auto failure = daemon.value()->follow({}, Clock::now() + 20s);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->errorName, "org.freedesktop.DBus.Error.AccessDenied");
}

TEST_F(ClientDaemon, ABusThatIsLostIsTold)
{
    bus.stop();
    std::optional<Failure> told;
    const Deadline deadline = Clock::now() + 20s;
    while (!told && Clock::now() < deadline) {
        told = daemon->step(deadline);
    }
    ASSERT_TRUE(told);
    EXPECT_EQ(told->status, ExitStatus::Unreachable);
    EXPECT_EQ(daemon->get("Mode", deadline).failure().status, ExitStatus::Unreachable);
    EXPECT_FALSE(Daemon::connect(deadline));
}

} // namespace
