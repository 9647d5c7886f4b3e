#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

struct wpa_ctrl;

/** Commands over the control socket of hostapd and wpa_supplicant (wpa_ctrl.h of their client library). */

/**
 * Sends a command and waits for the reply, for ten seconds in all or until the given time. Events that come
 * instead of it are dropped and do not prolong the wait.
 *
 * @param connection control connection, or null
 * @param command command text such as "STA-FIRST"
 * @param reply receives the reply: at most min(size, 4096) bytes, padded with NULs; when the reply fills the
 *        area no NUL ends it. Untouched on failure.
 * @param size size of the reply area in bytes
 * @return 0 on success; -1 without a connection; -2 for a reply that starts with "FAIL"; otherwise the
 * negative result of control_request (-1: it could not be sent, -2: no reply in time)
 *
 * Logs (ERR) "%s: Not connected to socket - command dropped.", "%s: '%s' command failed." or
 * "%s: '%s' received 'FAIL' status.".
 */
int32_t wpa_socket_cmd(wpa_ctrl* connection, const char* command, char* reply, size_t size,
                       std::chrono::steady_clock::time_point until);
int32_t wpa_socket_cmd(wpa_ctrl* connection, const char* command, char* reply, size_t size);

/**
 * Writes bytes to the log (DEBUG) as "%s:%s", each as " 0x" and its value in hexadecimal without leading
 * zeros.
 *
 * @param length number of bytes; zero or less writes an empty text
 */
void wpa_socket_buffer_dump(const unsigned char* buffer, int32_t length);
