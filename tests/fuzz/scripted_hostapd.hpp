#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <time.h>
#include <wpa_ctrl.h>

#include "fuzz_input.hpp"
#include "listeners/control_request.hpp"

/**
 * hostapd's control socket, in place of its client library and of asking over it: answers with the bytes of
 * an input. Include it in one source file of a target.
 */
struct wpa_ctrl
{
};

namespace fuzz {

struct ScriptedHostapd
{
    inline static wpa_ctrl connection;
    inline static size_t open = 0; ///< connections that are not closed
    inline static std::vector<std::string> requests;

    /** The bytes of the next reply; nothing for a request that fails. */
    inline static std::function<std::optional<std::string>()> answer;
};

} // namespace fuzz

/** At most so many bytes as fit, and no NUL behind them. */
int32_t control_request(wpa_ctrl*, const char* command, char* reply, size_t& length, const ControlWait&)
{
    using fuzz::ScriptedHostapd;
    ScriptedHostapd::requests.emplace_back(command);
    const std::optional<std::string> bytes = ScriptedHostapd::answer();
    if (!bytes) {
        return -1;
    }
    length = bytes->copy(reply, length);
    return 0;
}

extern "C" {

wpa_ctrl* wpa_ctrl_open2(const char*, const char*)
{
    ++fuzz::ScriptedHostapd::open;
    return &fuzz::ScriptedHostapd::connection;
}

void wpa_ctrl_close(wpa_ctrl*)
{
    --fuzz::ScriptedHostapd::open;
}

int wpa_ctrl_get_fd(wpa_ctrl*)
{
    return -1;
}

int wpa_ctrl_pending(wpa_ctrl*)
{
    return 0;
}

int wpa_ctrl_recv(wpa_ctrl*, char*, size_t*)
{
    return -1;
}

/** Nobody waits for a socket file that will not come. */
int nanosleep(const timespec*, timespec*)
{
    return 0;
}

} // extern "C"
