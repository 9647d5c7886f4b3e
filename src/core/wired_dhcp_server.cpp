#include "core/wired_dhcp_server.hpp"

#include <syslog.h>

#include "utils/interface_queries.hpp"
#include "utils/systemd_units.hpp"

namespace {

constexpr const char* kWired = "eth0";
constexpr const char* kUnit = "udhcpd_eth0.service";
constexpr const char* kUnitFile = "/etc/korrin/udhcpd_eth0.service";

void enable_and_start()
{
    if (!utils_enable_service(kUnitFile)) {
        syslog(LOG_ERR, "Failed to enable %s", kUnit);
        return;
    }
    std::string path;
    if (utils_load_service_unit(kUnit, path) == 0) {
        syslog(LOG_ERR, "Failed to load %s", kUnit);
        return;
    }
    if (utils_start_service(path) == 0) {
        syslog(LOG_ERR, "Failed to start %s", kUnit);
        return;
    }
    syslog(LOG_INFO, "Successfully enabled and started %s", kUnit);
}

void stop_and_disable()
{
    std::string path;
    if (utils_load_service_unit(kUnit, path) == 0) {
        syslog(LOG_ERR, "Failed to load %s", kUnit);
        return;
    }
    if (utils_stop_service(path) == 0) {
        syslog(LOG_ERR, "Failed to stop %s", kUnit);
        return;
    }
    // By name: systemd refuses to disable a unit file by its absolute path.
    if (!utils_disable_service(kUnit)) {
        syslog(LOG_ERR, "Failed to disable %s", kUnit);
        return;
    }
    syslog(LOG_INFO, "Successfully stopped and disabled %s", kUnit);
}

} // namespace

void wired_dhcp_server_address_changed(const std::string& interface, const std::string&, bool added)
{
    if (!utils_is_nfs_root() && interface == kWired && added) {
        enable_and_start();
    } else {
        stop_and_disable();
    }
}
