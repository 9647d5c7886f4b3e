#pragma once

#include <string>

#include "view.hpp"

namespace doctor {

/** What somebody needs who wants to join the access point. */
struct AccessPointKey
{
    std::string ssid;
    std::string passphrase;
    bool hidden = false;
    /** Why there is no passphrase to show; empty when there is one. */
    std::string failure;
};

/**
 * Finds them: the passphrase in hostapd's template where a person has put one there, else the one that was
 * made on the device (/var/lib/vantora-device/passphrase); the name in what the daemon last gave to hostapd,
 * else in the settings.
 */
AccessPointKey find_key(const View& view);

/** The text of the code that phones read: "WIFI:T:WPA;S:...;P:...;;", with what means something in it
 * escaped. */
std::string wifi_code_text(const AccessPointKey& key);

} // namespace doctor
