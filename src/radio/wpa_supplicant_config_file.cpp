#include "radio/wpa_supplicant_config_file.hpp"

#include <array>
#include <cstdio>
#include <fstream>

#include <syslog.h>

#include "utils/shell_commands.hpp"

bool wpa_supplicant_gen_passphrase(const std::string& ssid, const std::string& passphrase)
{
    constexpr const char* kFunction = "wpa_supplicant_gen_passphrase";

    std::array<char, 256> command{};
    std::snprintf(command.data(), command.size(),
                  "wpa_passphrase '%s' '%s' > /etc/wpa_supplicant/wpa_supplicant-nl80211-wlan0.conf",
                  ssid.c_str(), passphrase.c_str());
    const int status = utils_do_system_call(command.data());
    if (status != 0) {
        syslog(LOG_ERR, "%s: Unable to generate ssid from passphrase, error: %d", kFunction, status);
        return false;
    }
    syslog(LOG_INFO, "%s: SSID generated from passphrase successfully.", kFunction);
    return true;
}

bool wpa_supplicant_write_open_config(const std::string& ssid)
{
    std::ofstream file("/etc/wpa_supplicant/wpa_supplicant-nl80211-wlan0.conf", std::ios::trunc);
    file << "ctrl_interface=/var/run/wpa_supplicant\n"
            "ctrl_interface_group=0\n"
            "network={\n"
            "\tssid=\""
         << ssid
         << "\"\n"
            "\tkey_mgmt=NONE\n"
            "}\n";
    // Only closing it shows whether there was room for it.
    file.close();
    if (!file) {
        syslog(LOG_ERR, "Unable to write to wpa_supplicant configuration file");
        return false;
    }
    return true;
}

bool wpa_supplicant_configure(const std::string& ssid, const std::string& passphrase)
{
    return passphrase.empty() ? wpa_supplicant_write_open_config(ssid)
                              : wpa_supplicant_gen_passphrase(ssid, passphrase);
}
