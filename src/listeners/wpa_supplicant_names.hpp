#pragma once

/** wpa_supplicant on the system bus (its D-Bus API documentation, "wpa_supplicant D-Bus API"). */
namespace wpa_supplicant_names {

/** The name calls go to: older builds own it beside the newer one, the device's does. */
constexpr const char* kCallService = "fi.epitest.hostap.WPASupplicant";

/** The name under which it sends signals. */
constexpr const char* kSignalService = "fi.w1.wpa_supplicant1";

/** The interface object of wlan0: the first one that the unit registers. */
constexpr const char* kInterfacePath = "/fi/w1/wpa_supplicant1/Interfaces/1";

constexpr const char* kInterface = "fi.w1.wpa_supplicant1.Interface";
constexpr const char* kBssInterface = "fi.w1.wpa_supplicant1.BSS";

} // namespace wpa_supplicant_names
