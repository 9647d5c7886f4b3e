#include "listeners/wpa_socket_listener.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <string_view>
#include <utility>

#include <sys/select.h>
#include <syslog.h>

#include "listeners/control_request.hpp"
#include "utils/pause.hpp"
#include "utils/thread_start.hpp"

namespace {

using namespace std::chrono_literals;

constexpr const char* kInterface = "wlan0";
constexpr const char* kListenTask = "ListenTask";

constexpr size_t kEventSize = 4096;

/** The pause between two looks at a socket that is being replaced. */
constexpr auto kBetweenLooks = 10ms;

/** How long what a daemon has said last is handed over: one that goes on talking is not listened to for ever,
 * and the main thread waits meanwhile. */
constexpr auto kRestTime = 2s;

} // namespace

void WpaSocketListener::start_listening(const char* directory)
{
    end_thread();
    path_ = control_socket_path(directory, kInterface);
    if (!connection_) {
        if (successorExpected_) {
            await_replacement();
        }
        successorExpected_ = false;
        await_control_socket(path_);
        take(connect_control_socket(path_));
    }
    stop_.clear();
    listening_ = true;
    thread_ = utils_start_thread(&WpaSocketListener::ListenTask, this);
}

void WpaSocketListener::end_thread()
{
    stop_.set();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void WpaSocketListener::Stop()
{
    end_thread();
    connection_.reset();
}

void WpaSocketListener::Restart()
{
    retire();
    Start();
}

void WpaSocketListener::retire()
{
    expect_successor();
    await_replacement();
    restUntil_ = std::chrono::steady_clock::now() + kRestTime;
    Stop();
    restUntil_ = {};
    successorExpected_ = false; // has been waited for, whatever was said meanwhile
}

void WpaSocketListener::expect_successor()
{
    const std::lock_guard lock(filesMutex_);
    leaving_ = connectedTo_;
    successorExpected_ = true;
}

bool WpaSocketListener::follows_successor() const
{
    const std::lock_guard lock(filesMutex_);
    return listening_ && leaving_ && connectedTo_ && connectedTo_ != leaving_;
}

void WpaSocketListener::await_replacement()
{
    constexpr int kLooks = 100;

    std::optional<SocketFile> leaving;
    {
        const std::lock_guard lock(filesMutex_);
        leaving = leaving_;
    }
    for (int look = 0; look < kLooks && leaving && socket_file(path_) == leaving; ++look) {
        pause_for(0, std::chrono::nanoseconds(kBetweenLooks).count());
    }
}

void WpaSocketListener::take(ControlSocket opened)
{
    connection_ = std::move(opened.connection);
    const std::lock_guard lock(filesMutex_);
    connectedTo_ = opened.file;
}

void WpaSocketListener::ListenTask()
{
    follow_events();
    listening_ = false;
}

void WpaSocketListener::follow_events()
{
    if (!attach()) {
        return;
    }
    fd_ = wpa_ctrl_get_fd(connection_.get());
    if (fd_ < 0) {
        syslog(LOG_ERR, "%s: Failed to get a valid fd - cannot listen.", kListenTask);
        return;
    }
    while (!stop_.is_set()) {
        if (!wait_for_event()) {
            syslog(LOG_ERR, "%s: Failed to select hostapd fd", kListenTask);
            return;
        }
        receive_pending();
    }
    receive_rest();
}

bool WpaSocketListener::attach()
{
    bool attached = ask_to_attach();
    while (!stop_.is_set() && is_replaced(attached)) {
        if (attached) {
            receive_pending();
        }
        connect_to_successor();
        attached = ask_to_attach();
    }
    if (attached) {
        return true;
    }
    if (stop_.is_set()) {
        // Otherwise an answer that comes late would be taken for that to the next question.
        connection_.reset();
    } else if (connection_) {
        syslog(LOG_ERR, "%s: Cannot attach to socket - cannot listen.", kListenTask);
    } else {
        syslog(LOG_ERR, "%s: Not connected to socket - cannot listen.", kListenTask);
    }
    return false;
}

bool WpaSocketListener::ask_to_attach()
{
    if (!connection_) {
        return false;
    }
    std::array<char, sizeof("OK\n")> reply{};
    size_t length = reply.size();
    const int32_t result =
        control_request(connection_.get(), "ATTACH", reply.data(), length,
                        {.onEvent = [this](const char* event) { hand_over(event); },
                         // One that has another in its place already will not answer any more.
                         .givesUp = [this] { return stop_.is_set() || is_replaced(true); },
                         .wakeUp = stop_.fd()});
    return result == 0 && std::string_view(reply.data(), length) == "OK\n";
}

bool WpaSocketListener::is_replaced(bool attached) const
{
    const std::optional<SocketFile> present = socket_file(path_);
    const std::lock_guard lock(filesMutex_);
    return present != connectedTo_ && (present || !attached);
}

void WpaSocketListener::connect_to_successor()
{
    constexpr int kLooks = 200;

    connection_.reset();
    for (int look = 0; look < kLooks && !socket_file(path_); ++look) {
        if (stop_.wait_for(kBetweenLooks)) {
            return;
        }
    }
    take(connect_control_socket(path_));
}

bool WpaSocketListener::wait_for_event() const
{
    // A set holds descriptors below FD_SETSIZE only; beyond it select would write outside of the set.
    if (fd_ >= FD_SETSIZE || stop_.fd() >= FD_SETSIZE) {
        return false;
    }
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd_, &readable);
    if (stop_.fd() >= 0) {
        FD_SET(stop_.fd(), &readable);
    }
    timeval timeout = {.tv_sec = 1, .tv_usec = 0};
    const int highest = std::max(fd_, stop_.fd());
    return select(highest + 1, &readable, nullptr, nullptr, &timeout) >= 0 || errno == EINTR;
}

void WpaSocketListener::receive_pending()
{
    // Set once per wake-up: the library lowers it to the size of each message, so a later message of the same
    // wake-up is cut to the size of the one before it.
    size_t length = kEventSize - 1;

    // An error, a negative result, counts as pending; a broken descriptor must not keep Stop waiting.
    while (wpa_ctrl_pending(connection_.get()) != 0 && !stop_.is_set()) {
        receive_one(length);
    }
}

void WpaSocketListener::receive_rest()
{
    size_t length = kEventSize - 1;
    while (std::chrono::steady_clock::now() < restUntil_ && wpa_ctrl_pending(connection_.get()) > 0) {
        receive_one(length);
    }
}

void WpaSocketListener::receive_one(size_t& length)
{
    std::array<char, kEventSize> buffer{};

    if (wpa_ctrl_recv(connection_.get(), buffer.data(), &length) == 0) {
        hand_over(buffer.data());
    }
}

void WpaSocketListener::hand_over(const char* event)
{
    syslog(LOG_INFO, "%s: Recv %s", kListenTask, event);
    SignalEvent(event);
}
