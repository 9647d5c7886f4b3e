#include "utils/dhcp_units.hpp"

#include <syslog.h>

#include "utils/systemd_units.hpp"
#include "utils/unit_job.hpp"

namespace {

constexpr const char* kServerUnit = "udhcpd.service";
constexpr const char* kClientUnit = "udhcpc@wlan0.service";

} // namespace

int dhcp_server_start()
{
    syslog(LOG_INFO, "Starting UDHCP daemon service");
    return run_unit_job(kServerUnit, utils_start_service);
}

int dhcp_server_restart()
{
    syslog(LOG_INFO, "Re-Starting UDHCP daemon service");
    return run_unit_job(kServerUnit, utils_restart_service);
}

int dhcp_server_stop()
{
    syslog(LOG_INFO, "Stoping UDHCP daemon service");
    return run_unit_job(kServerUnit, utils_stop_service);
}

int dhcp_client_start()
{
    syslog(LOG_INFO, "Starting UDHCP client service");
    return run_unit_job(kClientUnit, utils_start_service);
}

int dhcp_client_restart()
{
    syslog(LOG_INFO, "Re-Starting UDHCP client service");
    return run_unit_job(kClientUnit, utils_restart_service);
}

int dhcp_client_stop()
{
    syslog(LOG_INFO, "Stoping UDHCP client service");
    return run_unit_job(kClientUnit, utils_stop_service);
}
