#pragma once

// What the control operations stand on, replaced: for the one source file of a test program.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/wifi_config.hpp"
#include "core/service.hpp"
#include "core/wifi_control.hpp"
#include "radio/hostapd.hpp"
#include "radio/wifi_controller.hpp"
#include "support/captured_log.hpp"

namespace testing_support {

/** The radio, hostapd and the settings as the operations find them, and what becomes of each thing they ask
 * for. */
struct Surroundings
{
    int enabled = 1;
    bool modeReadable = true;
    WifiMode mode = WifiMode::Host;
    WifiMode storedMode = WifiMode::Host;
    bool configReadable = true;
    bool supports5GHz = true;
    int hostapdReadable = 1;
    std::string ssid = "old";
    std::string frequency = "2.4";
    bool storing = true;
    int powering = 1;
    int switching = 1;
    int stopping = 1;
    int reconfiguring = 1;
};

inline Surroundings around;

/** Priority under which the things an operation asks for stand in the log, so that one list shows the order
 * of both. */
inline constexpr int kStep = -1;

inline void note(const std::string& step)
{
    captured_log().note(kStep, step);
}

inline std::string name_of(WifiMode mode)
{
    return mode == WifiMode::Client ? "Client" : "Host";
}

inline LogLine does(const std::string& what)
{
    return {kStep, what};
}

class WifiControl : public testing::Test
{
protected:
    WifiControl()
    {
        around = {};
        captured_log().clear();
    }

    static std::vector<LogLine> done() { return captured_log().lines(); }
};

} // namespace testing_support

using testing_support::around;
using testing_support::name_of;
using testing_support::note;

// In the place of the radio, hostapd, the settings and the bus

int wifi_get_enabled()
{
    note("read power");
    return around.enabled;
}

int wifi_get_mode(WifiMode& mode)
{
    note("read mode");
    if (around.modeReadable) {
        mode = around.mode;
    }
    return around.modeReadable ? 1 : 0;
}

int wifi_set_enabled(bool on)
{
    note(on ? "power on" : "power off");
    return around.powering;
}

int wifi_mode_switch(WifiMode target)
{
    note("switch to " + name_of(target));
    return around.switching;
}

int wifi_host_stop()
{
    note("stop Host");
    return around.stopping;
}

int wifi_client_stop()
{
    note("stop Client");
    return around.stopping;
}

int32_t hostapd_get_ssid(std::string& ssid)
{
    note("read applied SSID");
    ssid = around.ssid;
    return around.hostapdReadable;
}

int32_t hostapd_get_frequency(std::string& frequency)
{
    note("read applied band");
    frequency = around.frequency;
    return around.hostapdReadable;
}

int32_t hostapd_set_ssid(const std::string& ssid)
{
    note("apply SSID '" + ssid + "'");
    return around.reconfiguring;
}

int32_t hostapd_set_frequency(const std::string& frequency)
{
    note("apply band " + frequency);
    return around.reconfiguring;
}

bool read_wifi_config(WifiConfig& config)
{
    note("read configuration");
    config.mode = around.storedMode;
    return around.configReadable;
}

void set_safe_wifi_config(WifiConfig& config)
{
    note("take safe configuration");
    config.mode = WifiMode::Host;
}

bool radio_supports_5ghz()
{
    return around.supports5GHz;
}

bool settings_set_wifi_mode(WifiMode mode)
{
    note("store mode " + name_of(mode));
    return around.storing;
}

bool settings_set_frequency(const std::string& frequency)
{
    note("store band " + frequency);
    return around.storing;
}

bool settings_set_device_name(const std::string& name)
{
    note("store device name '" + name + "'");
    return around.storing;
}

void emit_property_changed(const char* property)
{
    note(std::string("announce ") + property);
}
