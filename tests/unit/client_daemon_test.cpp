// The client's connection: how long it waits, what ends a wait, and what becomes of questions that nobody
// answers.

#include "client/daemon.hpp"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

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

/** A bus on which the daemon's name has an owner who says nothing. */
class ClientDaemon : public testing::Test
{
protected:
    ClientDaemon()
    {
        EXPECT_GE(sd_bus_request_name(owner.get(), client::kName, 0), 0);
        auto connected = Daemon::connect(Clock::now() + 20s);
        EXPECT_TRUE(connected);
        daemon = std::move(connected.value());
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
    // While a question is under way, too.
    daemon->get_later(
        "Mode", [](const Result<Json>&) {}, Clock::now() + 20s);
    EXPECT_FALSE(daemon->step(kNever, others));
    EXPECT_EQ(others[0].revents, POLLIN);
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
    EXPECT_EQ(daemon->call("Scan", {}, Clock::now())->status, ExitStatus::TimedOut);
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
