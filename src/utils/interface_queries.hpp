#pragma once

#include <cstddef>
#include <iosfwd>

/** Facts about network interfaces and the machine, read anew on every call. */

/** Sizes of the buffers that the callers provide, terminating NUL included. */
constexpr size_t kMacAddressBufferSize = 18;
constexpr size_t kIpAddressBufferSize = 16;
constexpr size_t kSignalStrengthBufferSize = 256;

/**
 * Formats the hardware address of an interface as "00:1a:2b:3c:4d:5e" (getifaddrs(3), AF_PACKET).
 *
 * @param interface interface name
 * @param buffer at least kMacAddressBufferSize characters
 * @return nonzero when a 6-byte address was formatted; 0 otherwise
 *
 * Logs "%s: Failed to get MAC address for interface %s" (ERR) when the interface's address is not 6 bytes
 * long; nothing when there is no such interface or the list can not be had.
 */
int utils_get_mac_address(const char* interface, char* buffer);

/**
 * Formats the first IPv4 address of an interface as a dotted quad (getifaddrs(3), inet_ntop(3)).
 *
 * @param interface interface name
 * @param buffer at least kIpAddressBufferSize characters
 * @return nonzero when an address was found and formatted; 0 otherwise
 *
 * Logs "utils_get_ip_address: addr_found: %d" (INFO) with 1 or 0 on every call.
 */
int utils_get_ip_address(const char* interface, char* buffer);

/**
 * Reads the transmit power of wlan0 as iw(8) prints it, for example "txpower 20.00 dB".
 *
 * @param buffer zero-filled, at least kSignalStrengthBufferSize characters; untouched when the line that was
 *        read does not hold "txpower "
 * @return true when a line was read; false, after half a second, when there was none
 *
 * Logs, when there was none, "[Utils] %s: could not read AP Tx Power, retrying..." and
 * "[Utils] %s: could not read AP Tx Power, timed out." (both ERR). The command is not run again.
 */
bool utils_get_signal_strength(char* buffer);

/**
 * Tells whether the root file system is mounted over NFS, by what /proc/cmdline says.
 *
 * @return true when it is; false also when the file can not be read
 *
 * Logs "Failed to open /proc/cmdline" (ERR).
 */
bool utils_is_nfs_root();

/** True when "root=/dev/nfs" stands in the first 499 bytes of a kernel command line's first line. */
bool utils_names_nfs_root(std::istream& commandLine);
