#pragma once

#include <cstddef>
#include <map>
#include <string>

/** hostapd's configuration: the device's template, with a few keys overridden, becomes the runtime file. */

/** Key to value, ordered byte-wise by key: the order in which the runtime file lists them. */
using HostapdConfig = std::map<std::string, std::string>;

/** The keys that this program sets. */
constexpr const char* kHostapdSsid = "ssid";
constexpr const char* kHostapdHwMode = "hw_mode";
constexpr const char* kHostapdAcsBlacklist = "acs_blacklist";

/** The longest name that 802.11 allows, in bytes. */
constexpr size_t kMaxSsidLength = 32;

/** "a" for the band "5", "g" for any other text. */
std::string hostapd_hw_mode_of(const std::string& frequency);

/** "5" for "a", "2.4" for any other text. */
std::string hostapd_frequency_of(const std::string& hwMode);

/**
 * What hostapd is given of a value: the text up to its first line break, which it would take for the end of
 * the line.
 */
inline std::string hostapd_value_of(const std::string& text)
{
    return text.substr(0, text.find('\n'));
}

/**
 * Reads a configuration file. Nothing is trimmed; empty lines and lines that start with "#" are skipped, a
 * line without "=" becomes a key with itself as value, and the last of several equal keys counts.
 *
 * @param config entries are added to it; untouched on failure
 * @return 1 on success, 0 when the file can not be opened, or not be read to its end
 *
 * Logs "[Hostapd] Failed to open '%s' config file for read" (ERR).
 */
int hostapd_read_conf(const std::string& path, HostapdConfig& config);

/**
 * Writes a configuration file, one "key=value" to a line. A value ends at its first line break, so that none
 * can add a line of its own. The file is readable and writable by its owner only. It is replaced as a whole:
 * hostapd, whose access point is an open one without the lines at the end, never finds a part of it.
 *
 * @return 1 on success, 0 when any step of it fails; the file is then the one of before
 *
 * Logs, for each value that has to be cut, "[Hostapd] Value of '%s' holds a line break and is cut there"
 * (WARNING), and "[Hostapd] Failed to open '%s' config file for write" (ERR).
 */
int hostapd_write_conf(const std::string& path, const HostapdConfig& config);

/** Writes each entry to the log as "%s:%s" (INFO). */
void hostapd_dump_conf(const HostapdConfig& config);

/**
 * Fills the overrides from the settings daemon: SSID, band, and the channels that automatic channel selection
 * leaves out.
 *
 * Logs "[WiFi] Failed to get AP ssid, use default" and "[WiFi] Failed to get AP freq, use default (2.4)"
 * (WARNING) where a setting can not be read.
 */
void hostapd_get_overrides(HostapdConfig& overrides);

/**
 * Puts the overrides into a configuration. On a radio that has no 5 GHz, the hardware mode "a" becomes "g"; a
 * configuration that has no hardware mode gets an empty one.
 *
 * Logs "[Hostapd] Setting '%s' to '%s'" (INFO) for each override, and "[Hostapd] %s: This device do not
 * support 5GHz, ovverride and set to 2.4ghz" (WARNING).
 */
void hostapd_merge_conf(const HostapdConfig& overrides, HostapdConfig& config);

/**
 * Merges the overrides into the template "/etc/hostapd.conf" and writes "/run/hostapd.conf".
 *
 * @param overrides have an SSID; one of more than 32 bytes is written as it is
 * @return 1 when the runtime file was written, else 0
 *
 * Logs what hostapd_merge_conf logs, then "Runtime Hostapd conf" and the entries between lines of dashes
 * (INFO), and "[Hostapd] SSID of %zu bytes is longer than %zu, hostapd will refuse it" (WARNING); after a
 * failure "[Hostapd] Failed to parse default hostapd config file" or
 * "[Hostapd] Failed to write runtime hostapd config file" (ERR).
 */
int hostapd_set_conf(const HostapdConfig& overrides);
