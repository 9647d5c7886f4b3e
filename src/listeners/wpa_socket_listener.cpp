#include "listeners/wpa_socket_listener.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <utility>

#include <sys/select.h>
#include <sys/stat.h>
#include <syslog.h>

#include "utils/pause.hpp"

namespace {

constexpr const char* kInterface = "wlan0";
constexpr const char* kListenTask = "ListenTask";

bool exists(const std::string& path)
{
    std::error_code error;
    return std::filesystem::exists(path, error);
}

std::string socket_path(const char* directory, const std::string& interface)
{
    return std::string(directory) + "/" + interface;
}

/** The file at a path; none when there is none. */
std::optional<SocketFile> socket_file(const std::string& path)
{
    struct stat file = {};
    if (stat(path.c_str(), &file) != 0) {
        return std::nullopt;
    }
    return SocketFile{.device = file.st_dev,
                      .inode = file.st_ino,
                      .made = file.st_mtim.tv_sec,
                      .madeNanoseconds = file.st_mtim.tv_nsec};
}

/** Waits until the file is not at the path any more, but no longer than a second. */
void wait_until_replaced(const std::string& path, const SocketFile& file)
{
    constexpr int kLooks = 100;
    constexpr long kBetween = 10'000'000;

    for (int look = 0; look < kLooks && socket_file(path) == file; ++look) {
        pause_for(0, kBetween);
    }
}

} // namespace

WpaCtrlPtr open_control_socket(const char* directory, const std::string& interface)
{
    constexpr int kLooks = 3;

    const std::string path = socket_path(directory, interface);
    for (int look = 1; !exists(path) && look < kLooks; ++look) {
        pause_for(1, 0);
    }
    // One more look, whose answer changes nothing: only the daemon itself can tell whether it listens.
    exists(path);
    return WpaCtrlPtr(wpa_ctrl_open2(path.c_str(), nullptr));
}

void WpaSocketListener::StartListening(const char* directory)
{
    // Opened first, but stored only when the old thread, which may still look at the connection, has ended.
    const bool connected = static_cast<bool>(connection_);
    WpaCtrlPtr opened;
    if (!connected) {
        const std::string path = socket_path(directory, kInterface);
        if (successorExpected_ && connectedTo_) {
            wait_until_replaced(path, *connectedTo_);
        }
        successorExpected_ = false;
        opened = open_control_socket(directory, kInterface);
        connectedTo_ = opened ? socket_file(path) : std::nullopt;
    }
    if (thread_.joinable()) {
        stop_.set();
        thread_.join();
    }
    if (!connected) {
        connection_ = std::move(opened);
    }
    stop_.clear();
    thread_ = std::thread(&WpaSocketListener::ListenTask, this);
}

void WpaSocketListener::Stop()
{
    stop_.set();
    if (thread_.joinable()) {
        thread_.join();
    }
    connection_.reset();
}

void WpaSocketListener::Restart()
{
    Stop();
    ExpectSuccessor();
    Start();
}

void WpaSocketListener::ListenTask()
{
    if (!connection_) {
        syslog(LOG_ERR, "%s: Not connected to socket - cannot listen.", kListenTask);
        return;
    }
    if (wpa_ctrl_attach(connection_.get()) != 0) {
        syslog(LOG_ERR, "%s: Cannot attach to socket - cannot listen.", kListenTask);
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
    std::array<char, 4096> buffer{};

    // Set once per wake-up: the library lowers it to the size of each message, so a later message of the same
    // wake-up is cut to the size of the one before it.
    size_t length = buffer.size() - 1;

    // An error, a negative result, counts as pending; a broken descriptor must not keep Stop waiting.
    while (wpa_ctrl_pending(connection_.get()) != 0 && !stop_.is_set()) {
        buffer.fill('\0');
        if (wpa_ctrl_recv(connection_.get(), buffer.data(), &length) != 0) {
            continue;
        }
        syslog(LOG_INFO, "%s: Recv %s", kListenTask, buffer.data());
        SignalEvent(buffer.data());
    }
}
