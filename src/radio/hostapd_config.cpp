#include "radio/hostapd_config.hpp"

#include <fstream>
#include <utility>

#include <sys/stat.h>
#include <syslog.h>

#include "config/wifi_config.hpp"
#include "utils/replace_file.hpp"

namespace {

constexpr const char* kTemplatePath = "/etc/hostapd.conf";
constexpr const char* kRuntimePath = "/run/hostapd.conf";

/** 5 GHz channels on which an access point must watch for radar, which takes it off the air for a minute. */
constexpr const char* kRadarChannels = "52 56 60 64 100 104 108 112 116 120 124 128 132 136 140 144";

constexpr const char* kHwMode5GHz = "a";
constexpr const char* kHwMode2_4GHz = "g";

void dump_runtime_conf(const HostapdConfig& config)
{
    constexpr const char* kLine = "---------------------------------";

    syslog(LOG_INFO, "%s", kLine);
    syslog(LOG_INFO, "Runtime Hostapd conf");
    syslog(LOG_INFO, "%s", kLine);
    hostapd_dump_conf(config);
    syslog(LOG_INFO, "%s", kLine);
}

/** A name that is too long is passed on all the same: hostapd says so in its own log and does not start. */
void warn_of_long_ssid(const HostapdConfig& config)
{
    const size_t length = hostapd_value_of(config.at(kHostapdSsid)).size();
    if (length > kMaxSsidLength) {
        syslog(LOG_WARNING, "[Hostapd] SSID of %zu bytes is longer than %zu, hostapd will refuse it", length,
               kMaxSsidLength);
    }
}

} // namespace

std::string hostapd_hw_mode_of(const std::string& frequency)
{
    return frequency == "5" ? kHwMode5GHz : kHwMode2_4GHz;
}

std::string hostapd_frequency_of(const std::string& hwMode)
{
    return hwMode == kHwMode5GHz ? "5" : "2.4";
}

int hostapd_read_conf(const std::string& path, HostapdConfig& config)
{
    std::ifstream file(path);
    HostapdConfig entries;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line.front() == '#') {
            continue;
        }
        // Without "=" the position is npos: the whole line is the key, and from npos + 1, which is 0, the
        // value.
        const size_t equals = line.find('=');
        entries[line.substr(0, equals)] = line.substr(equals + 1);
    }
    // Also what could be opened and not be read to its end: a part of it could be an access point without a
    // passphrase.
    if (!file.is_open() || file.bad()) {
        syslog(LOG_ERR, "[Hostapd] Failed to open '%s' config file for read", path.c_str());
        return 0;
    }
    for (auto& [key, value] : entries) {
        config[key] = std::move(value);
    }
    return 1;
}

int hostapd_write_conf(const std::string& path, const HostapdConfig& config)
{
    // The template's passphrase is in it: for hostapd only, which runs as the same user.
    constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;

    std::string contents;
    for (const auto& [key, value] : config) {
        const std::string line = hostapd_value_of(value);
        if (line.size() != value.size()) {
            syslog(LOG_WARNING, "[Hostapd] Value of '%s' holds a line break and is cut there", key.c_str());
        }
        contents.append(key).append(1, '=').append(line).append(1, '\n');
    }
    if (utils_replace_file(path, contents, kOwnerOnly) != 0) {
        syslog(LOG_ERR, "[Hostapd] Failed to open '%s' config file for write", path.c_str());
        return 0;
    }
    return 1;
}

void hostapd_dump_conf(const HostapdConfig& config)
{
    for (const auto& [key, value] : config) {
        syslog(LOG_INFO, "%s:%s", key.c_str(), value.c_str());
    }
}

void hostapd_get_overrides(HostapdConfig& overrides)
{
    std::string ssid;
    if (!settings_get_device_name(ssid)) {
        syslog(LOG_WARNING, "[WiFi] Failed to get AP ssid, use default");
        ssid = get_default_ssid();
    }
    std::string frequency;
    if (!settings_get_frequency(frequency)) {
        syslog(LOG_WARNING, "[WiFi] Failed to get AP freq, use default (2.4)");
        frequency = "2.4";
    }
    overrides[kHostapdSsid] = ssid;
    overrides[kHostapdHwMode] = hostapd_hw_mode_of(frequency);
    overrides[kHostapdAcsBlacklist] = kRadarChannels;
}

void hostapd_merge_conf(const HostapdConfig& overrides, HostapdConfig& config)
{
    for (const auto& [key, value] : overrides) {
        syslog(LOG_INFO, "[Hostapd] Setting '%s' to '%s'", key.c_str(), value.c_str());
        config[key] = value;
    }
    // Looking the mode up adds it, empty, where neither the template nor the overrides have it.
    std::string& hwMode = config[kHostapdHwMode];
    if (hwMode == kHwMode5GHz && !radio_supports_5ghz()) {
        syslog(LOG_WARNING, "[Hostapd] %s: This device do not support 5GHz, ovverride and set to 2.4ghz",
               "hostapd_set_conf");
        hwMode = kHwMode2_4GHz;
    }
}

int hostapd_set_conf(const HostapdConfig& overrides)
{
    HostapdConfig config;
    if (hostapd_read_conf(kTemplatePath, config) == 0) {
        syslog(LOG_ERR, "[Hostapd] Failed to parse default hostapd config file");
        return 0;
    }
    hostapd_merge_conf(overrides, config);
    dump_runtime_conf(config);
    warn_of_long_ssid(config);
    if (hostapd_write_conf(kRuntimePath, config) == 0) {
        syslog(LOG_ERR, "[Hostapd] Failed to write runtime hostapd config file");
        return 0;
    }
    return 1;
}
