#include "listeners/control_request.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef> // wpa_ctrl.h needs size_t
#include <cstring>
#include <string_view>

#include <poll.h>
#include <sys/socket.h>
#include <wpa_ctrl.h>

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int32_t kDone = 0;
constexpr int32_t kFailed = -1;
constexpr int32_t kNotAnswered = -2;

constexpr milliseconds kBetweenLooks = 100ms;

/** What tells an event from an answer. */
bool is_event(std::string_view message)
{
    return message.starts_with('<') || message.starts_with("IFNAME=");
}

/** One exchange: what is waited for and until when. */
class Exchange
{
public:
    Exchange(wpa_ctrl* connection, const ControlWait& wait)
        : connection_(connection), wait_(wait), socket_(wpa_ctrl_get_fd(connection)), until_(wait.until)
    {
    }

    int32_t send(std::string_view command)
    {
        while (::send(socket_, command.data(), command.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                return kFailed;
            }
            if (!wait_for(POLLOUT)) {
                return kNotAnswered;
            }
        }
        return kDone;
    }

    int32_t receive(char* reply, size_t& length)
    {
        while (wait_for(POLLIN)) {
            size_t received = buffer_.size() - 1;
            errno = 0;
            if (wpa_ctrl_recv(connection_, buffer_.data(), &received) != 0) {
                if (errno == EAGAIN || errno == EINTR) {
                    continue;
                }
                return kFailed;
            }
            buffer_[received] = '\0';
            if (!is_event(std::string_view(buffer_.data(), received))) {
                length = std::min(length, received);
                std::memcpy(reply, buffer_.data(), length);
                return kDone;
            }
            hand_over_event();
            if (given_up()) {
                break;
            }
        }
        return kNotAnswered;
    }

private:
    /** Waits until the socket can be written to or read from. Returns false when there is no more waiting. */
    bool wait_for(short wanted)
    {
        while (true) {
            const auto left = std::chrono::ceil<milliseconds>(until_ - steady_clock::now());
            if (left.count() <= 0) {
                return false;
            }
            std::array<pollfd, 2> waits = {{{.fd = socket_, .events = wanted, .revents = 0},
                                            {.fd = wait_.wakeUp, .events = POLLIN, .revents = 0}}};
            const milliseconds longest = wait_.givesUp ? std::min(left, kBetweenLooks) : left;
            poll(waits.data(), waits.size(), static_cast<int>(longest.count()));
            if (waits.front().revents != 0) {
                return true;
            }
            if (given_up()) {
                return false;
            }
        }
    }

    bool given_up() const { return wait_.givesUp && wait_.givesUp(); }

    void hand_over_event()
    {
        if (wait_.onEvent) {
            const auto before = steady_clock::now();
            wait_.onEvent(buffer_.data());
            until_ += steady_clock::now() - before;
        }
    }

    wpa_ctrl* connection_;
    const ControlWait& wait_;
    int socket_;
    steady_clock::time_point until_;
    std::array<char, 4096> buffer_{};
};

} // namespace

int32_t control_request(wpa_ctrl* connection, const char* command, char* reply, size_t& length,
                        const ControlWait& wait)
{
    Exchange exchange(connection, wait);
    const int32_t sent = exchange.send(command);
    return sent == kDone ? exchange.receive(reply, length) : sent;
}
