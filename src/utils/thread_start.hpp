#pragma once

#include <system_error>
#include <thread>
#include <utility>

/**
 * Ends the process with status 1, for want of a thread.
 *
 * Logs "[Main] Failed to create a thread: %d, exiting ..." (ERR).
 *
 * @param error negative errno
 */
[[noreturn]] void utils_end_without_thread(int error);

/**
 * Starts a thread. Nothing here can do without one of its threads: where the system has none left, the
 * process ends as said above, and the service manager starts it anew.
 *
 * @param arguments those of std::thread
 */
template <typename... Arguments>
std::thread utils_start_thread(Arguments&&... arguments)
{
    try {
        return std::thread(std::forward<Arguments>(arguments)...);
    } catch (const std::system_error& error) {
        utils_end_without_thread(-error.code().value());
    }
}
