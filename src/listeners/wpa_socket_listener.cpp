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

void WpaSocketListener::StartListening(const char* directory)
{
    EndThread();
    path_ = control_socket_path(directory, kInterface);
    if (!connection_) {
        if (successorExpected_) {
            AwaitReplacement();
        }
        successorExpected_ = false;
        await_control_socket(path_);
        Take(connect_control_socket(path_));
    }
    stop_.clear();
    listening_ = true;
    thread_ = utils_start_thread(&WpaSocketListener::ListenTask, this);
}

void WpaSocketListener::EndThread()
{
    stop_.set();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void WpaSocketListener::Stop()
{
    EndThread();
    connection_.reset();
}

void WpaSocketListener::Restart()
{
    Retire();
    Start();
}

void WpaSocketListener::Retire()
{
    ExpectSuccessor();
    AwaitReplacement();
    restUntil_ = std::chrono::steady_clock::now() + kRestTime;
    Stop();
    restUntil_ = {};
    successorExpected_ = false; // has been waited for, whatever was said meanwhile
}

void WpaSocketListener::ExpectSuccessor()
{
    const std::lock_guard lock(filesMutex_);
    leaving_ = connectedTo_;
    successorExpected_ = true;
}

bool WpaSocketListener::FollowsSuccessor() const
{
    const std::lock_guard lock(filesMutex_);
    return listening_ && leaving_ && connectedTo_ && connectedTo_ != leaving_;
}

void WpaSocketListener::AwaitReplacement()
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

void WpaSocketListener::Take(ControlSocket opened)
{
    connection_ = std::move(opened.connection);
    const std::lock_guard lock(filesMutex_);
    connectedTo_ = opened.file;
}

void WpaSocketListener::ListenTask()
{
    Listen();
    listening_ = false;
}

void WpaSocketListener::Listen()
{
    if (!Attach()) {
        return;
    }
    fd_ = wpa_ctrl_get_fd(connection_.get());
    if (fd_ < 0) {
        syslog(LOG_ERR, "%s: Failed to get a valid fd - cannot listen.", kListenTask);
        return;
    }
    while (!stop_.is_set()) {
        if (!WaitForEvent()) {
            syslog(LOG_ERR, "%s: Failed to select hostapd fd", kListenTask);
            return;
        }
        ReceivePending();
    }
    ReceiveRest();
}

bool WpaSocketListener::Attach()
{
    bool attached = AskToAttach();
    while (!stop_.is_set() && IsReplaced(attached)) {
        if (attached) {
            ReceivePending();
        }
        ConnectToSuccessor();
        attached = AskToAttach();
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

bool WpaSocketListener::AskToAttach()
{
    if (!connection_) {
        return false;
    }
    std::array<char, sizeof("OK\n")> reply{};
    size_t length = reply.size();
    const int32_t result =
        control_request(connection_.get(), "ATTACH", reply.data(), length,
                        {.onEvent = [this](const char* event) { HandOver(event); },
                         // One that has another in its place already will not answer any more.
                         .givesUp = [this] { return stop_.is_set() || IsReplaced(true); },
                         .wakeUp = stop_.fd()});
    return result == 0 && std::string_view(reply.data(), length) == "OK\n";
}

bool WpaSocketListener::IsReplaced(bool attached) const
{
    const std::optional<SocketFile> present = socket_file(path_);
    const std::lock_guard lock(filesMutex_);
    return present != connectedTo_ && (present || !attached);
}

void WpaSocketListener::ConnectToSuccessor()
{
    constexpr int kLooks = 200;

    connection_.reset();
    for (int look = 0; look < kLooks && !socket_file(path_); ++look) {
        if (stop_.wait_for(kBetweenLooks)) {
            return;
        }
    }
    Take(connect_control_socket(path_));
}

bool WpaSocketListener::WaitForEvent() const
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

void WpaSocketListener::ReceivePending()
{
    // Set once per wake-up: the library lowers it to the size of each message, so a later message of the same
    // wake-up is cut to the size of the one before it.
    size_t length = kEventSize - 1;

    // An error, a negative result, counts as pending; a broken descriptor must not keep Stop waiting.
    while (wpa_ctrl_pending(connection_.get()) != 0 && !stop_.is_set()) {
        ReceiveOne(length);
    }
}

void WpaSocketListener::ReceiveRest()
{
    size_t length = kEventSize - 1;
    while (std::chrono::steady_clock::now() < restUntil_ && wpa_ctrl_pending(connection_.get()) > 0) {
        ReceiveOne(length);
    }
}

void WpaSocketListener::ReceiveOne(size_t& length)
{
    std::array<char, kEventSize> buffer{};

    if (wpa_ctrl_recv(connection_.get(), buffer.data(), &length) == 0) {
        HandOver(buffer.data());
    }
}

void WpaSocketListener::HandOver(const char* event)
{
    syslog(LOG_INFO, "%s: Recv %s", kListenTask, event);
    SignalEvent(event);
}
