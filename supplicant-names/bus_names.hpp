#pragma once

/** wpa_supplicant on the system bus, and the bus itself. */

/** The name that is stood in for. Builds of wpa_supplicant with its old D-Bus interface own it themselves. */
constexpr const char* kOlderName = "fi.epitest.hostap.WPASupplicant";

/** The name that wpa_supplicant has. */
constexpr const char* kNewerName = "fi.w1.wpa_supplicant1";

/** wpa_supplicant's own object, and the interface of it; the interface is called like the name. */
constexpr const char* kRootPath = "/fi/w1/wpa_supplicant1";
constexpr const char* kRootInterface = kNewerName;

/** The object that callers of the older name take for the station's. */
constexpr const char* kFirstObject = "/fi/w1/wpa_supplicant1/Interfaces/1";

/** The network interface that is the station. */
constexpr const char* kStation = "wlan0";

constexpr const char* kBus = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";

constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

/** The interface of wpa_supplicant's objects for network interfaces, and of those for access points. */
constexpr const char* kInterfaceInterface = "fi.w1.wpa_supplicant1.Interface";
constexpr const char* kBssInterface = "fi.w1.wpa_supplicant1.BSS";
