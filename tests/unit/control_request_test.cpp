#include "listeners/control_request.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <functional>
#include <future>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "listeners/wpa_ctrl_owner.hpp"
#include "support/temp_folder.hpp"
#include "support/unique_fd.hpp"

// The client library is the real one, and so are the sockets; the daemon behind them is played.

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::TempFolder;

constexpr int32_t kFailed = -1;
constexpr int32_t kNotAnswered = -2;

/** Why the library's next receptions fail, in turn; 0 for one that does not say why. */
std::deque<int> receptionErrors;

} // namespace

// Stands before the C library's; under a name of its own because that of the header may be inline.
extern "C" ssize_t receive_or_fail(int socket, void* buffer, size_t size, int flags) __asm__("recv");

extern "C" ssize_t receive_or_fail(int socket, void* buffer, size_t size, int flags)
{
    if (receptionErrors.empty()) {
        return recvfrom(socket, buffer, size, flags, nullptr, nullptr);
    }
    const int error = receptionErrors.front();
    receptionErrors.pop_front();
    errno = error != 0 ? error : errno;
    return -1;
}

namespace {

/** A daemon with a control socket. What it does with a command is the test's. */
class Daemon
{
public:
    explicit Daemon(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        if (bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            std::abort();
        }
    }

    ~Daemon() { end(); }

    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    /** Waits until what was begun on another thread is over. */
    void end()
    {
        ended_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    /** Waits for one command on another thread, and then does this. */
    void on_command(std::function<void(const std::string&)> act)
    {
        thread_ = std::thread([this, act = std::move(act)] {
            std::array<char, 256> command{};
            socklen_t length = sizeof(client_);
            const ssize_t size = recvfrom(socket_.get(), command.data(), command.size(), 0,
                                          reinterpret_cast<sockaddr*>(&client_), &length);
            act(std::string(command.data(), static_cast<size_t>(std::max<ssize_t>(size, 0))));
        });
    }

    /** Sends a message to whoever sent the command. */
    void say(std::string_view text) const
    {
        sendto(socket_.get(), text.data(), text.size(), MSG_DONTWAIT,
               reinterpret_cast<const sockaddr*>(&client_), sizeof(client_));
    }

    bool ended() const { return ended_; }

private:
    UniqueFd socket_;
    sockaddr_un client_{};
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};

class ControlRequest : public testing::Test
{
protected:
    void SetUp() override { connection.reset(wpa_ctrl_open2(folder.file("wlan0").c_str(), nullptr)); }

    int32_t ask(const char* command, const ControlWait& wait = {})
    {
        std::array<char, 4096> buffer{};
        size_t length = buffer.size() - 1;
        const auto before = steady_clock::now();
        const int32_t result = control_request(connection.get(), command, buffer.data(), length, wait);
        took = steady_clock::now() - before;
        reply = result == 0 ? std::string(buffer.data(), length) : "";
        return result;
    }

    static ControlWait within(std::chrono::milliseconds time)
    {
        return {.until = steady_clock::now() + time};
    }

    const TempFolder folder;
    Daemon daemon{folder.file("wlan0")};
    WpaCtrlPtr connection;
    std::string reply;
    std::chrono::nanoseconds took{};
};

TEST_F(ControlRequest, SendsTheCommandAsItIsAndReturnsTheAnswer)
{
    std::promise<std::string> asked;
    daemon.on_command([&](const std::string& command) {
        asked.set_value(command);
        daemon.say("PONG\n");
    });
    EXPECT_EQ(ask("PING"), 0);
    EXPECT_EQ(reply, "PONG\n");
    EXPECT_EQ(asked.get_future().get(), "PING");
    daemon.end();
}

TEST_F(ControlRequest, AnEmptyAnswerIsOne)
{
    daemon.on_command([&](const std::string&) { daemon.say(""); });
    EXPECT_EQ(ask("STA-FIRST"), 0);
    EXPECT_EQ(reply, "");
}

TEST_F(ControlRequest, EventsBeforeTheAnswerAreHandedOverWholeAndInOrder)
{
    daemon.on_command([&](const std::string&) {
        daemon.say("<3>AP-ENABLED ");
        daemon.say("<3>AP-STA-CONNECTED 02:00:00:00:00:01");
        daemon.say("IFNAME=wlan0 <3>x");
        daemon.say("OK\n");
    });
    std::vector<std::string> events;
    EXPECT_EQ(ask("ATTACH", {.onEvent = [&](const char* event) { events.emplace_back(event); }}), 0);
    EXPECT_EQ(reply, "OK\n");
    EXPECT_THAT(events,
                ElementsAre("<3>AP-ENABLED ", "<3>AP-STA-CONNECTED 02:00:00:00:00:01", "IFNAME=wlan0 <3>x"));
}

TEST_F(ControlRequest, EventsAreDroppedWhereNobodyWantsThem)
{
    daemon.on_command([&](const std::string&) {
        daemon.say("<3>AP-ENABLED ");
        daemon.say("PONG\n");
    });
    EXPECT_EQ(ask("PING"), 0);
    EXPECT_EQ(reply, "PONG\n");
}

TEST_F(ControlRequest, SilenceIsGivenUpInTime)
{
    EXPECT_EQ(ask("PING", within(200ms)), kNotAnswered);
    EXPECT_GE(took, 200ms);
    EXPECT_LT(took, 15s);
}

TEST_F(ControlRequest, EventsDoNotProlongTheWait)
{
    daemon.on_command([&](const std::string&) {
        const auto end = steady_clock::now() + 60s;
        while (!daemon.ended() && steady_clock::now() < end) {
            daemon.say("<3>AP-STA-CONNECTED 02:00:00:00:00:01");
            std::this_thread::sleep_for(1ms);
        }
    });
    EXPECT_EQ(ask("STA-FIRST", within(500ms)), kNotAnswered);
    EXPECT_GE(took, 500ms);
    EXPECT_LT(took, 15s);
}

TEST_F(ControlRequest, TheTimeThatTheReceiverOfEventsTakesDoesNotCount)
{
    daemon.on_command([&](const std::string&) {
        daemon.say("<3>AP-ENABLED ");
        daemon.say("OK\n");
    });
    ControlWait wait = within(2s);
    wait.onEvent = [&](const char*) { std::this_thread::sleep_until(wait.until + 100ms); };
    EXPECT_EQ(ask("ATTACH", wait), 0);
    EXPECT_EQ(reply, "OK\n");
}

TEST_F(ControlRequest, ADaemonThatHasGoneIsNotWaitedFor)
{
    {
        const std::string path = folder.file("wlan1");
        const Daemon gone(path);
        connection.reset(wpa_ctrl_open2(path.c_str(), nullptr));
    }
    EXPECT_EQ(ask("PING"), kFailed);
    EXPECT_LT(took, 5s);
}

TEST_F(ControlRequest, AReceptionThatIsInterruptedIsMadeAgainAndOneThatFailsIsTheEnd)
{
    for (const auto& [errors, result] :
         {std::pair(std::deque{EAGAIN, EINTR}, 0), {{ECONNRESET}, kFailed}, {{EAGAIN, 0}, kFailed}}) {
        receptionErrors = errors;
        daemon.end();
        daemon.on_command([&](const std::string&) { daemon.say("PONG\n"); });
        EXPECT_EQ(ask("PING"), result) << errors.front();
        EXPECT_THAT(receptionErrors, IsEmpty());
        EXPECT_LT(took, 5s);
        SetUp(); // without what came too late
    }
}

TEST_F(ControlRequest, ADaemonThatReadsNothingIsGivenUpInTime)
{
    // Commands that nobody reads fill its queue.
    const int socket = wpa_ctrl_get_fd(connection.get());
    while (send(socket, "PING", 4, MSG_DONTWAIT) == 4) {
    }
    EXPECT_EQ(ask("PING", within(200ms)), kNotAnswered);
    EXPECT_GE(took, 200ms);
    EXPECT_LT(took, 15s);
}

TEST_F(ControlRequest, IsGivenUpWhenItIsSaidSoAndNotBefore)
{
    int asked = 0;
    EXPECT_EQ(ask("ATTACH", {.givesUp = [&] { return ++asked == 3; }}), kNotAnswered);
    EXPECT_EQ(asked, 3);
    EXPECT_GE(took, 250ms);
    EXPECT_LT(took, 9s);
}

TEST_F(ControlRequest, IsGivenUpBetweenTwoEvents)
{
    std::atomic<bool> enough = false;
    daemon.on_command([&](const std::string&) {
        while (!daemon.ended()) {
            daemon.say("<3>event");
        }
    });
    const ControlWait wait = {.onEvent = [&](const char*) { enough = true; },
                              .givesUp = [&] { return enough.load(); }};
    EXPECT_EQ(ask("ATTACH", wait), kNotAnswered);
    EXPECT_LT(took, 9s);
}

TEST_F(ControlRequest, IsWokenUpToBeGivenUp)
{
    const UniqueFd wakeUp(eventfd(0, EFD_CLOEXEC));
    std::atomic<bool> over = false;
    daemon.on_command([&](const std::string&) {
        over = true;
        eventfd_write(wakeUp.get(), 1);
    });
    EXPECT_EQ(ask("ATTACH", {.givesUp = [&] { return over.load(); }, .wakeUp = wakeUp.get()}), kNotAnswered);
    EXPECT_LT(took, 9s);
    daemon.end();
}

TEST_F(ControlRequest, AnAnswerIsCutToTheRoomForIt)
{
    daemon.on_command([&](const std::string&) { daemon.say("0123456789"); });
    std::array<char, 4> room = {'#', '#', '#', '#'};
    size_t length = 3;
    EXPECT_EQ(control_request(connection.get(), "STATUS", room.data(), length), 0);
    EXPECT_EQ(length, 3U);
    EXPECT_EQ(std::string(room.data(), room.size()), "012#");
}

} // namespace
