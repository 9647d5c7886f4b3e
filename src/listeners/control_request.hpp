#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

struct wpa_ctrl;

/** How long the answer to a command is waited for, as the client library waits between two messages. */
constexpr std::chrono::seconds kControlAnswerTime{10};

/** How an answer is waited for. */
struct ControlWait
{
    /** When the waiting ends, whatever has come in by then. */
    std::chrono::steady_clock::time_point until = std::chrono::steady_clock::now() + kControlAnswerTime;

    /** Is given each event that comes before the answer, a NUL-terminated text of at most 4095 bytes. The
     * time that it takes does not count. Without it events are dropped. */
    std::function<void(const char* event)> onEvent = nullptr;

    /** Asked every 100 milliseconds, after each event, and when `wakeUp` is readable; true ends the waiting.
     */
    std::function<bool()> givesUp = nullptr;

    /** A descriptor whose readability wakes the waiting up; -1 for none. */
    int wakeUp = -1;
};

/**
 * Sends a command over a control connection of hostapd or wpa_supplicant and waits for the answer.
 *
 * What wpa_ctrl_request of the client library does, except for the time: the library waits ten seconds after
 * each message, and so for ever where events keep coming instead of an answer.
 *
 * @param connection control connection
 * @param command command text such as "STA-FIRST"
 * @param reply receives the answer, without a NUL behind it
 * @param length size of `reply` in bytes; on success the length of the answer
 * @return 0 on success; -1 when the command could not be sent or receiving failed; -2 without an answer in
 *         time, or where the waiting was given up
 */
int32_t control_request(wpa_ctrl* connection, const char* command, char* reply, size_t& length,
                        const ControlWait& wait = {});
