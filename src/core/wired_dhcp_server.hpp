#pragma once

#include <string>

/**
 * The DHCP server of the wired interface follows the addresses of the machine: an address added on "eth0"
 * enables and starts "udhcpd_eth0.service"; any other address event, whatever the interface, stops and
 * disables it, and so does every event on a device whose root file system is on NFS.
 *
 * Runs on the thread of the address listener, which it blocks for the time of its calls to systemd.
 *
 * Logs "Successfully enabled and started %s" and "Successfully stopped and disabled %s" (INFO); "Failed to
 * enable %s", "Failed to load %s", "Failed to start %s", "Failed to stop %s" and "Failed to disable %s"
 * (ERR).
 */
void wired_dhcp_server_address_changed(const std::string& interface, const std::string& address, bool added);
