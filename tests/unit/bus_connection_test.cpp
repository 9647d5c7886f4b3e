// Opening a bus: one that lets in, one that takes connections and says nothing, one that hangs up, and none.

#include "support/bus_connection.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>

#include "support/interrupting_signals.hpp"
#include "support/private_bus.hpp"
#include "support/temp_folder.hpp"
#include "support/unique_fd.hpp"

namespace {

using namespace std::chrono_literals;
using std::chrono::microseconds;
using Clock = std::chrono::steady_clock;
using testing_support::InterruptingSignals;
using testing_support::PrivateBus;
using testing_support::TempFolder;

constexpr auto kCallTimeout = 400ms;
constexpr auto kFarBeyondIt = 10s;

/** Takes connections, and says nothing; both buses of this process are it. */
class SilentBus
{
public:
    SilentBus() : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        folder_.file("bus").copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(socket_.get(), 8), 0);
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + folder_.file("bus")).c_str(), 1);
        ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + folder_.file("bus")).c_str(), 1);
    }

    /** Hangs up on the connection that has waited longest. */
    void hang_up() { const UniqueFd taken(::accept(socket_.get(), nullptr, nullptr)); }

private:
    TempFolder folder_;
    UniqueFd socket_;
};

/** Tells how long something took. */
class Watch
{
public:
    Clock::duration passed() const { return Clock::now() - began_; }

private:
    Clock::time_point began_ = Clock::now();
};

/** The time-out of a call is made short: the library reads it once in a process. */
class BusConnection : public testing::Test
{
protected:
    static void SetUpTestSuite() { ::setenv("SYSTEMD_BUS_TIMEOUT", "400ms", 1); }

    BusPtr bus;
};

TEST_F(BusConnection, IsLetInBeforeItIsHandedOut)
{
    const PrivateBus there;
    EXPECT_GE(open_system_bus(bus), 0);
    EXPECT_GT(sd_bus_is_ready(bus.get()), 0);
    EXPECT_GE(open_user_bus(bus), 0);
    EXPECT_GT(sd_bus_is_ready(bus.get()), 0);
    EXPECT_GE(open_system_bus(bus, 20s), 0);
    EXPECT_GT(sd_bus_is_ready(bus.get()), 0);
}

TEST_F(BusConnection, IsNotWaitedForWhereThatIsNotNeeded)
{
    const SilentBus there;
    const Watch watch;
    EXPECT_GE(open_system_bus(bus, LetIn::Unneeded), 0);
    EXPECT_GT(sd_bus_is_open(bus.get()), 0);
    EXPECT_EQ(sd_bus_is_ready(bus.get()), 0);
    EXPECT_GE(open_user_bus(bus, LetIn::Unneeded), 0);
    EXPECT_GT(sd_bus_is_open(bus.get()), 0);
    EXPECT_EQ(sd_bus_is_ready(bus.get()), 0);
    EXPECT_LT(watch.passed(), kFarBeyondIt);
}

TEST_F(BusConnection, IsGivenUpWhenTheTimeOfACallIsOver)
{
    const SilentBus there;
    for (int (*const open)(BusPtr&, LetIn) :
         {&open_user_bus, static_cast<int (*)(BusPtr&, LetIn)>(&open_system_bus)}) {
        const Watch watch;
        EXPECT_GE(open(bus, LetIn::Awaited), 0);
        EXPECT_EQ(sd_bus_is_open(bus.get()), 0);
        EXPECT_GE(watch.passed(), kCallTimeout);
        EXPECT_LT(watch.passed(), kFarBeyondIt);
    }
}

TEST_F(BusConnection, IsGivenUpAfterTheShorterOfItsOwnTimeAndThatOfACall)
{
    const SilentBus there;
    const Watch own;
    EXPECT_GE(open_system_bus(bus, 100ms), 0);
    EXPECT_EQ(sd_bus_is_open(bus.get()), 0);
    EXPECT_GE(own.passed(), 100ms);
    EXPECT_LT(own.passed(), kFarBeyondIt);
    const Watch ofACall;
    EXPECT_GE(open_system_bus(bus, 1h), 0);
    EXPECT_EQ(sd_bus_is_open(bus.get()), 0);
    EXPECT_GE(ofACall.passed(), kCallTimeout);
    EXPECT_LT(ofACall.passed(), kFarBeyondIt);
}

TEST_F(BusConnection, IsSaidToBeLetInOrNot)
{
    {
        const PrivateBus there;
        ASSERT_GE(open_system_bus(bus, LetIn::Unneeded), 0);
        EXPECT_EQ(await_letting_in(bus.get()), 0);
        EXPECT_GT(sd_bus_is_ready(bus.get()), 0);
        EXPECT_EQ(await_letting_in(bus.get(), 0s), 0) << "it is ready already";
        ASSERT_GE(open_system_bus(bus, LetIn::Unneeded), 0);
        EXPECT_EQ(await_letting_in(bus.get(), microseconds::max()), 0);
    }
    const SilentBus there;
    ASSERT_GE(open_system_bus(bus, LetIn::Unneeded), 0);
    EXPECT_EQ(await_letting_in(bus.get()), -ETIMEDOUT);
    ASSERT_GE(open_system_bus(bus, LetIn::Unneeded), 0);
    EXPECT_EQ(await_letting_in(bus.get(), 10ms), -ETIMEDOUT);
}

TEST_F(BusConnection, IsWaitedForOnWhenASignalCame)
{
    const SilentBus there;
    ASSERT_GE(open_system_bus(bus, LetIn::Unneeded), 0);
    const InterruptingSignals signals;
    EXPECT_EQ(await_letting_in(bus.get(), 200ms), -ETIMEDOUT);
}

TEST_F(BusConnection, ThatIsRefusedIsGivenUpAtOnce)
{
    SilentBus there;
    ASSERT_GE(open_system_bus(bus, LetIn::Unneeded), 0);
    there.hang_up();
    const Watch watch;
    EXPECT_LT(await_letting_in(bus.get(), 1h), 0);
    EXPECT_EQ(sd_bus_is_open(bus.get()), 0);
    EXPECT_LT(watch.passed(), kFarBeyondIt);
}

TEST_F(BusConnection, ToNoBusFails)
{
    const TempFolder folder;
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + folder.file("none")).c_str(), 1);
    ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + folder.file("none")).c_str(), 1);
    for (const LetIn letIn : {LetIn::Awaited, LetIn::Unneeded}) {
        EXPECT_EQ(open_system_bus(bus, letIn), -ENOENT);
        EXPECT_EQ(open_user_bus(bus, letIn), -ENOENT);
    }
    EXPECT_EQ(open_system_bus(bus, 1s), -ENOENT);
    EXPECT_EQ(bus, nullptr);
}

} // namespace
