#pragma once

/**
 * The DHCP units: "udhcpd.service" serves addresses in access-point mode, "udhcpc@wlan0.service" obtains one
 * in station mode. Each function writes its line to the log (INFO), looks the unit up and queues the job.
 *
 * All return the result of the unit job (utils/systemd_units.hpp): 1 when its last result code was not zero,
 * also for a refused job; 0 when the look-up or the job ended with exactly zero. Failures are logged there.
 */

int dhcp_server_start();   /**< "Starting UDHCP daemon service" */
int dhcp_server_restart(); /**< "Re-Starting UDHCP daemon service" */
int dhcp_server_stop();    /**< "Stoping UDHCP daemon service" */
int dhcp_client_start();   /**< "Starting UDHCP client service" */
int dhcp_client_restart(); /**< "Re-Starting UDHCP client service" */
int dhcp_client_stop();    /**< "Stoping UDHCP client service" */
