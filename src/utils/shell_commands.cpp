#include "utils/shell_commands.hpp"

#include <syslog.h>

#include "utils/shell_process.hpp"

namespace {

constexpr int kAttempts = 3;
constexpr int kExitStatusOne = 256;

/** killall ends with status 1 when there was nothing to kill, which is what the caller wanted. */
bool is_benign(const std::string& command, int status)
{
    return command == "killall udhcpc" && status == kExitStatusOne;
}

} // namespace

int utils_do_system_call(const std::string& command)
{
    constexpr const char* kFunction = "utils_do_system_call";

    syslog(LOG_INFO, "%s: trying \"%s\"...", kFunction, command.c_str());
    int status = 0;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        status = shell_run(command);
        if (status == 0 || is_benign(command, status)) {
            return status;
        }
        syslog(LOG_ERR, "%s: system call failed: %d", kFunction, status);
        syslog(LOG_ERR, "%s: retrying \"%s\"...", kFunction, command.c_str());
    }
    return status;
}

bool utils_flush_ip()
{
    syslog(LOG_INFO, "[Utils] Flush IP addr of wlan0");
    const int status = utils_do_system_call("ip addr flush dev wlan0");
    if (status != 0) {
        syslog(LOG_ERR, "%s: Unable to flush wlan0 address, error: %d", "utils_flush_ip", status);
        return false;
    }
    syslog(LOG_INFO, "%s: wlan0 ip address deleted successfully", "utils_flush_ip");
    return true;
}

bool utils_add_ip(const std::string& address)
{
    syslog(LOG_INFO, "[Utils] Add IP addr of wlan0: %s", address.c_str());
    const int status = utils_do_system_call("ip addr add " + address + " dev wlan0");
    if (status != 0) {
        syslog(LOG_ERR, "%s: Unable to add wlan0 address, error: %d", "utils_add_ip", status);
        return false;
    }
    syslog(LOG_INFO, "%s: wlan0 ip address added successfully", "utils_add_ip");
    return true;
}
