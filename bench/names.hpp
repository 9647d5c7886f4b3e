#pragma once

/** Names that the programs here share. The bare service has the daemon's path and interface under its own
 * name. */

constexpr const char* kDaemon = "com.vantora.Network1";
constexpr const char* kBareService = "com.vantora.bench.BareService";
constexpr const char* kObjectPath = "/com/vantora/Network1";
constexpr const char* kInterface = "com.vantora.Network1.WiFi";

constexpr const char* kStationName = "fi.w1.wpa_supplicant1";
constexpr const char* kOlderStationName = "fi.epitest.hostap.WPASupplicant";
constexpr const char* kStationRoot = "/fi/w1/wpa_supplicant1";
constexpr const char* kStationPath = "/fi/w1/wpa_supplicant1/Interfaces/1";
constexpr const char* kStationInterface = "fi.w1.wpa_supplicant1.Interface";
constexpr const char* kBssInterface = "fi.w1.wpa_supplicant1.BSS";

constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";

constexpr const char* kSettings = "com.vantora.common.Settings1";
constexpr const char* kSettingsSection = "/com/vantora/common/Settings1/display";
constexpr const char* kSettingsFolder = "/run/sim";
constexpr const char* kSettingsFile = "/run/sim/settings.json";

constexpr const char* kHostapdFolder = "/run/hostapd";
constexpr const char* kHostapdSocket = "/run/hostapd/wlan0";

/** Sent to the stand-in for hostapd, this before a text makes it an event for all who are attached. */
constexpr const char* kEventRequest = "EVENT ";
