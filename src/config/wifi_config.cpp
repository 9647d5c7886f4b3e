#include "config/wifi_config.hpp"

#include <syslog.h>

#include "config/own_writes.hpp"
#include "config/settings_client.hpp"
#include "korrin-info/korrin_info.hpp"

namespace {

using Settings = Settingsd::SettingsDaemonDbusHandler;

constexpr const char* kNetworkSection = "network";
constexpr const char* kDeviceSection = "device";
constexpr const char* kEnabledKey = "enabled";
constexpr const char* kModeKey = "mode";
constexpr const char* kFrequencyKey = "frequency";
constexpr const char* kDeviceNameKey = "deviceName";

constexpr const char* kBand2_4 = "2.4";
constexpr const char* kBand5 = "5";

constexpr int kRadioTypeWith5GHz = 1;

/** A setting that holds a text, and what this program has stored there lately. */
struct TextSetting
{
    const char* section;
    const char* key;
    OwnWrites ownWrites;
};

TextSetting modeSetting = {kNetworkSection, kModeKey, {}};
TextSetting frequencySetting = {kNetworkSection, kFrequencyKey, {}};
TextSetting deviceNameSetting = {kDeviceSection, kDeviceNameKey, {}};

TextSetting* text_setting(const std::string& key)
{
    for (TextSetting* setting : {&modeSetting, &frequencySetting, &deviceNameSetting}) {
        if (key == setting->key) {
            return setting;
        }
    }
    return nullptr;
}

template <typename T>
bool get_setting(const char* section, const char* key, T& value)
{
    if (Settings::GetSetting(section, key, value) < 0) {
        syslog(LOG_WARNING, "Failed to get '%s' setting", key);
        return false;
    }
    return true;
}

template <typename T>
bool set_setting(const char* section, const char* key, const T& value)
{
    if (Settings::SetSetting<T>(section, key, value) < 0) {
        syslog(LOG_WARNING, "Failed to set '%s' setting", key);
        return false;
    }
    return true;
}

/** Remembered before it is stored: a call that is given up may have stored it all the same. */
bool set_text(TextSetting& setting, const std::string& value)
{
    setting.ownWrites.remember(value);
    return set_setting(setting.section, setting.key, value);
}

} // namespace

bool read_wifi_config(WifiConfig& config)
{
    syslog(LOG_INFO, "Read settings from Settings Daemon");

    if (!get_setting(kNetworkSection, kEnabledKey, config.enabled)) {
        return false;
    }

    WifiMode mode = WifiMode::Host;
    if (!settings_get_wifi_mode(mode)) {
        syslog(LOG_WARNING, "Failed to get WiFi mode");
        return false;
    }
    config.mode = mode;

    // Unlike settings_get_frequency, an unset band is not replaced here: it makes the record unusable.
    std::string frequency;
    if (!get_setting(kNetworkSection, kFrequencyKey, frequency)) {
        return false;
    }
    if (frequency == kBand2_4) {
        config.band = WifiBand::Band2_4GHz;
    } else if (frequency == kBand5) {
        config.band = WifiBand::Band5GHz;
    } else {
        syslog(LOG_WARNING, "Got unknown WiFi frequency band '%s'", frequency.c_str());
        return false;
    }

    if (!settings_get_device_name(config.hostSsid)) {
        syslog(LOG_WARNING, "Failed to fetch host ssid");
        return false;
    }
    return true;
}

void set_safe_wifi_config(WifiConfig& config)
{
    config.enabled = true;
    config.mode = WifiMode::Host;
    config.hostSsid = get_default_ssid();
    config.band = radio_supports_5ghz() ? WifiBand::Band5GHz : WifiBand::Band2_4GHz;
}

void dump_wifi_config(const WifiConfig& config)
{
    constexpr const char* kLine = "--------------------------------------";

    syslog(LOG_INFO, "%s", kLine);
    syslog(LOG_INFO, "WiFi config dump");
    syslog(LOG_INFO, "%s", kLine);
    syslog(LOG_INFO, "Enabled:          %s", config.enabled ? "Enabled" : "Disabled");
    syslog(LOG_INFO, "Mode:             %s", config.mode != WifiMode::Host ? "Client" : "Host");
    syslog(LOG_INFO, "Frequency band:   %s", config.band != WifiBand::Band2_4GHz ? "5.0 GHz" : "2.4 GHz");
    syslog(LOG_INFO, "Host SSID:        %s", config.hostSsid.c_str());
    syslog(LOG_INFO, "Client SSID:      %s", config.clientSsid.c_str());
}

bool settings_get_wifi_mode(WifiMode& mode)
{
    std::string value;
    if (!get_setting(kNetworkSection, kModeKey, value)) {
        return false;
    }
    mode = value == "Client" ? WifiMode::Client : WifiMode::Host;
    return true;
}

bool settings_get_frequency(std::string& frequency)
{
    std::string value;
    if (!get_setting(kNetworkSection, kFrequencyKey, value)) {
        return false;
    }
    if (value.empty()) {
        value = default_frequency();
    }
    if (value != kBand2_4 && value != kBand5) {
        syslog(LOG_WARNING, "Got invalid value of '%s' setting", kFrequencyKey);
        return false;
    }
    frequency = value;
    return true;
}

bool settings_get_device_name(std::string& name)
{
    std::string value;
    if (!get_setting(kDeviceSection, kDeviceNameKey, value)) {
        return false;
    }
    name = value;
    return true;
}

bool settings_set_wifi_enabled(bool enabled)
{
    return set_setting(kNetworkSection, kEnabledKey, enabled);
}

bool settings_set_wifi_mode(WifiMode mode)
{
    const std::string value = mode == WifiMode::Client ? "Client" : "Host";
    return set_text(modeSetting, value);
}

bool settings_set_frequency(const std::string& frequency)
{
    return set_text(frequencySetting, frequency);
}

bool settings_set_device_name(const std::string& name)
{
    return set_text(deviceNameSetting, name);
}

bool settings_is_outdated(const std::string& key, const std::string& value)
{
    TextSetting* const setting = text_setting(key);
    if (setting == nullptr || !setting->ownWrites.heard(value)) {
        return false;
    }
    std::string stored;
    return Settings::GetSetting(setting->section, setting->key, stored) < 0 || stored != value;
}

std::string default_frequency()
{
    return radio_supports_5ghz() ? kBand5 : kBand2_4;
}

bool radio_supports_5ghz()
{
    return KorrinInfo::ThisKorrin::RadioType() == kRadioTypeWith5GHz;
}

std::string get_default_ssid()
{
    const std::string model = KorrinInfo::ThisModel::DisplayName();
    syslog(LOG_INFO, "model name: %s", model.c_str());
    const std::string serial = KorrinInfo::ThisKorrin::SerialNumber();
    syslog(LOG_INFO, "serial number : %s", serial.c_str());

    // Without a hyphen npos + 1 is 0: the whole serial number.
    std::string ssid = model + "-" + serial.substr(serial.find('-') + 1);
    syslog(LOG_INFO, "default ssid: %s", ssid.c_str());
    return ssid;
}
