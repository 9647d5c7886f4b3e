#include "listeners/wpa_socket_command.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string>

#include <syslog.h>

#include "listeners/control_request.hpp"

int32_t wpa_socket_cmd(wpa_ctrl* connection, const char* command, char* reply, size_t size)
{
    return wpa_socket_cmd(connection, command, reply, size,
                          std::chrono::steady_clock::now() + kControlAnswerTime);
}

int32_t wpa_socket_cmd(wpa_ctrl* connection, const char* command, char* reply, size_t size,
                       std::chrono::steady_clock::time_point until)
{
    constexpr const char* kFunction = "wpa_socket_cmd";
    constexpr int32_t kNotConnected = -1;
    constexpr int32_t kRefused = -2;

    if (connection == nullptr) {
        syslog(LOG_ERR, "%s: Not connected to socket - command dropped.", kFunction);
        return kNotConnected;
    }

    std::array<char, 4096> buffer{};
    size_t length = buffer.size() - 1;
    const int32_t result = control_request(connection, command, buffer.data(), length, {.until = until});
    if (result < 0) {
        syslog(LOG_ERR, "%s: '%s' command failed.", kFunction, command);
        return result;
    }
    if (std::memcmp(buffer.data(), "FAIL", 4) == 0) {
        syslog(LOG_ERR, "%s: '%s' received 'FAIL' status.", kFunction, command);
        return kRefused;
    }

    // What strncpy would do: up to the first NUL, the rest of the area filled with NULs.
    const size_t area = std::min(size, buffer.size());
    const size_t text = strnlen(buffer.data(), area);
    std::memcpy(reply, buffer.data(), text);
    std::fill(reply + text, reply + area, '\0');
    return result;
}

void wpa_socket_buffer_dump(const unsigned char* buffer, int32_t length)
{
    std::string text;
    for (int32_t i = 0; i < length; ++i) {
        std::array<char, sizeof(" 0xff")> piece{};
        std::snprintf(piece.data(), piece.size(), " 0x%x", static_cast<unsigned>(buffer[i]));
        text += piece.data();
    }
    syslog(LOG_DEBUG, "%s:%s", "wpa_socket_buffer_dump", text.c_str());
}
