#include "core/wifi_control.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <syslog.h>

#include "config/wifi_config.hpp"
#include "core/service.hpp"
#include "radio/hostapd.hpp"
#include "radio/wifi_controller.hpp"
#include "support/captured_log.hpp"

using testing::ElementsAre;
using testing_support::captured_log;
using testing_support::LogLine;

namespace {

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

Surroundings around;

/** Priority under which the things an operation asks for stand in the log, so that one list shows the order
 * of both. */
constexpr int kStep = -1;

void note(const std::string& step)
{
    captured_log().note(kStep, step);
}

std::string name_of(WifiMode mode)
{
    return mode == WifiMode::Client ? "Client" : "Host";
}

LogLine does(const std::string& what)
{
    return {kStep, what};
}

LogLine error(const std::string& text)
{
    return {LOG_ERR, text};
}

LogLine info(const std::string& text)
{
    return {LOG_INFO, text};
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

using WifiState = WifiControl;
using WifiModeControl = WifiControl;
using WifiFrequency = WifiControl;
using WifiSsid = WifiControl;

} // namespace

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

// Power

TEST_F(WifiState, StatesOtherThanOffAndOnAreRefusedBeforeAnythingIsRead)
{
    EXPECT_EQ(set_wifi_state(2), -1);
    EXPECT_EQ(set_wifi_state(4294967295U), -1);
    EXPECT_THAT(done(), ElementsAre(error("[Main] set_wifi_state: Unsupported state: 2"),
                                    error("[Main] set_wifi_state: Unsupported state: 4294967295")));
}

TEST_F(WifiState, TheStateThatIsThereAlreadySucceedsWithoutAction)
{
    EXPECT_EQ(set_wifi_state(1), 0);
    around.enabled = 0;
    EXPECT_EQ(set_wifi_state(0), 0);
    EXPECT_THAT(done(),
                ElementsAre(does("read power"), error("[Main] set_wifi_state: already in wifi state 1"),
                            does("read power"), error("[Main] set_wifi_state: already in wifi state 0")));
}

TEST_F(WifiState, SwitchingOnStartsTheStoredModeAndAnnouncesModeThenState)
{
    around.enabled = 0;
    around.mode = WifiMode::Host;
    around.storedMode = WifiMode::Client;
    EXPECT_EQ(set_wifi_state(1), 0);
    EXPECT_THAT(done(),
                ElementsAre(does("read power"), does("read configuration"), does("power on"),
                            does("switch to Client"), does("announce Mode"), does("announce WiFiState")));
}

TEST_F(WifiState, UnreadableConfigurationIsReplacedByTheSafeOneWithoutAWord)
{
    around.enabled = 0;
    around.configReadable = false;
    around.storedMode = WifiMode::Client;
    EXPECT_EQ(set_wifi_state(1), 0);
    EXPECT_THAT(done(), ElementsAre(does("read power"), does("read configuration"),
                                    does("take safe configuration"), does("power on"), does("switch to Host"),
                                    does("announce Mode"), does("announce WiFiState")));
}

TEST_F(WifiState, ARadioThatDoesNotObeyFailsAndNothingIsAnnounced)
{
    around.powering = 0;
    EXPECT_EQ(set_wifi_state(0), -1);
    EXPECT_THAT(done(), ElementsAre(does("read power"), does("read configuration"), does("power off"),
                                    error("[Main] set_wifi_state: Failed to set wifi state")));
}

TEST_F(WifiState, AFailedModeSwitchIsLoggedAndOnlyTheStateIsAnnounced)
{
    around.enabled = 0;
    around.switching = 0;
    EXPECT_EQ(set_wifi_state(1), 0);
    EXPECT_THAT(done(), ElementsAre(does("read power"), does("read configuration"), does("power on"),
                                    does("switch to Host"),
                                    error("[Main] set_wifi_state: Failed to switch wifi mode"),
                                    does("announce WiFiState")));
}

TEST_F(WifiState, SwitchingOffStopsTheStoredModeWhateverTheInterfaceIs)
{
    around.mode = WifiMode::Host;
    around.storedMode = WifiMode::Client;
    EXPECT_EQ(set_wifi_state(0), 0);
    EXPECT_THAT(done(), ElementsAre(does("read power"), does("read configuration"), does("power off"),
                                    does("stop Client"), does("announce WiFiState")));
}

TEST_F(WifiState, AModeThatCanNotBeStoppedIsOnlyLogged)
{
    around.stopping = 0;
    EXPECT_EQ(set_wifi_state(0), 0);
    around.storedMode = WifiMode::Client;
    EXPECT_EQ(set_wifi_state(0), 0);
    EXPECT_THAT(
        done(),
        ElementsAre(does("read power"), does("read configuration"), does("power off"), does("stop Host"),
                    error("[WiFi] set_wifi_state: Failed to stop Host mode"), does("announce WiFiState"),
                    does("read power"), does("read configuration"), does("power off"), does("stop Client"),
                    error("[WiFi] set_wifi_state: Failed to stop Client mode"), does("announce WiFiState")));
}

// Mode

TEST_F(WifiModeControl, OnlyTheTwoNamesAreKnownAndTheirCaseCounts)
{
    for (const char* mode : {"host", "CLIENT", "", "Host "}) {
        EXPECT_EQ(set_wifi_mode(mode, WriteThrough::On), -1);
    }
    EXPECT_THAT(done(), ElementsAre(error("[Main] set_wifi_mode: Unknown mode:host"),
                                    error("[Main] set_wifi_mode: Unknown mode:CLIENT"),
                                    error("[Main] set_wifi_mode: Unknown mode:"),
                                    error("[Main] set_wifi_mode: Unknown mode:Host ")));
}

TEST_F(WifiModeControl, TheModeThatIsThereAlreadySucceedsAndIsNotStored)
{
    EXPECT_EQ(set_wifi_mode("Host", WriteThrough::On), 0);
    around.mode = WifiMode::Client;
    EXPECT_EQ(set_wifi_mode("Client", WriteThrough::On), 0);
    EXPECT_THAT(done(),
                ElementsAre(does("read mode"), error("[Main] set_wifi_mode: already in wifi mode Host"),
                            does("read mode"), error("[Main] set_wifi_mode: already in wifi mode Client")));
}

TEST_F(WifiModeControl, AChangeIsStoredAppliedAndAnnounced)
{
    EXPECT_EQ(set_wifi_mode("Client", WriteThrough::On), 0);
    EXPECT_THAT(done(), ElementsAre(does("read mode"), does("store mode Client"), does("read power"),
                                    does("switch to Client"), does("announce Mode")));
}

TEST_F(WifiModeControl, AChangeThatComesFromTheSettingsIsNotStored)
{
    around.mode = WifiMode::Client;
    EXPECT_EQ(set_wifi_mode("Host", WriteThrough::Off), 0);
    EXPECT_THAT(done(), ElementsAre(does("read mode"), does("read power"), does("switch to Host"),
                                    does("announce Mode")));
}

TEST_F(WifiModeControl, AnUnreadableModeIsLoggedAndTheChangeMade)
{
    around.modeReadable = false;
    EXPECT_EQ(set_wifi_mode("Host", WriteThrough::On), 0);
    EXPECT_THAT(done(),
                ElementsAre(does("read mode"), error("[Main] set_wifi_mode: Failed to read wifi mode"),
                            does("store mode Host"), does("read power"), does("switch to Host"),
                            does("announce Mode")));
}

TEST_F(WifiModeControl, WhileTheRadioIsOffTheModeIsOnlyStored)
{
    around.enabled = 0;
    EXPECT_EQ(set_wifi_mode("Client", WriteThrough::On), 0);
    EXPECT_THAT(done(), ElementsAre(does("read mode"), does("store mode Client"), does("read power"),
                                    error("[Main] set_wifi_mode: Cannot change mode, wifi is disabled")));
}

TEST_F(WifiModeControl, AFailedSwitchFailsAndIsNotAnnouncedAndWhatIsStoredStays)
{
    around.switching = 0;
    EXPECT_EQ(set_wifi_mode("Client", WriteThrough::On), -1);
    EXPECT_THAT(done(),
                ElementsAre(does("read mode"), does("store mode Client"), does("read power"),
                            does("switch to Client"), error("[Main] set_wifi_mode: Mode switch failed")));
}

TEST_F(WifiModeControl, AFailureToStoreDoesNotKeepTheChangeBack)
{
    around.storing = false;
    EXPECT_EQ(set_wifi_mode("Client", WriteThrough::On), 0);
    EXPECT_THAT(done(), ElementsAre(does("read mode"), does("store mode Client"), does("read power"),
                                    does("switch to Client"), does("announce Mode")));
}

// Band

TEST_F(WifiFrequency, OtherTextsThanTheTwoBandsAreRefused)
{
    for (const char* frequency : {"5.0", "", "2.40", "2"}) {
        EXPECT_EQ(set_wifi_frequency(frequency, WriteThrough::On), -1);
    }
    const auto refusal = error("[Main] set_wifi_frequency: Invalid WiFi requency");
    EXPECT_THAT(done(), ElementsAre(refusal, refusal, refusal, refusal));
}

TEST_F(WifiFrequency, FiveGigahertzIsRefusedOnARadioWithoutIt)
{
    around.supports5GHz = false;
    EXPECT_EQ(set_wifi_frequency("5", WriteThrough::On), -1);
    EXPECT_THAT(done(), ElementsAre(error("[Main] set_wifi_frequency: This device do not support 5GHz")));
}

TEST_F(WifiFrequency, TheLowerBandIsTakenOnARadioWithoutFiveGigahertz)
{
    around.supports5GHz = false;
    around.frequency = "5";
    EXPECT_EQ(set_wifi_frequency("2.4", WriteThrough::Off), 0);
    EXPECT_THAT(done(), ElementsAre(does("read applied band"), does("read power"), does("read mode"),
                                    does("apply band 2.4"), does("announce WiFiFrequency")));
}

TEST_F(WifiFrequency, TheBandThatIsAppliedAlreadySucceedsAndIsNotStored)
{
    EXPECT_EQ(set_wifi_frequency("2.4", WriteThrough::On), 0);
    EXPECT_THAT(done(), ElementsAre(does("read applied band"),
                                    error("[Main] set_wifi_frequency: already on wifi frequency 2.4")));
}

TEST_F(WifiFrequency, AChangeIsStoredAppliedAndAnnounced)
{
    EXPECT_EQ(set_wifi_frequency("5", WriteThrough::On), 0);
    EXPECT_THAT(done(), ElementsAre(does("read applied band"), does("store band 5"), does("read power"),
                                    does("read mode"), does("apply band 5"), does("announce WiFiFrequency")));
}

TEST_F(WifiFrequency, AnUnreadableAppliedBandIsLoggedAndTheChangeMade)
{
    around.hostapdReadable = 0;
    EXPECT_EQ(set_wifi_frequency("2.4", WriteThrough::Off), 0);
    EXPECT_THAT(done(), ElementsAre(does("read applied band"),
                                    error("[Main] set_wifi_frequency: Failed to read wifi frequency"),
                                    does("read power"), does("read mode"), does("apply band 2.4"),
                                    does("announce WiFiFrequency")));
}

TEST_F(WifiFrequency, WhileTheRadioIsOffTheBandIsOnlyStored)
{
    around.enabled = 0;
    EXPECT_EQ(set_wifi_frequency("5", WriteThrough::On), 0);
    EXPECT_THAT(done(),
                ElementsAre(does("read applied band"), does("store band 5"), does("read power"),
                            info("[Main] set_wifi_frequency: Changing frequency, while wifi is disabled")));
}

TEST_F(WifiFrequency, AnUnreadableModeFailsAfterTheBandWasStored)
{
    around.modeReadable = false;
    EXPECT_EQ(set_wifi_frequency("5", WriteThrough::On), -1);
    EXPECT_THAT(done(),
                ElementsAre(does("read applied band"), does("store band 5"), does("read power"),
                            does("read mode"), error("[Main] set_wifi_frequency: Failed to read wifi mode")));
}

TEST_F(WifiFrequency, AStationFailsAfterTheBandWasStored)
{
    around.mode = WifiMode::Client;
    EXPECT_EQ(set_wifi_frequency("5", WriteThrough::On), -1);
    EXPECT_THAT(done(), ElementsAre(does("read applied band"), does("store band 5"), does("read power"),
                                    does("read mode"),
                                    error("[Main] set_wifi_frequency: Failed, Wifi is not in host mode")));
}

TEST_F(WifiFrequency, AnAccessPointThatDoesNotRestartFailsAndIsNotAnnounced)
{
    around.reconfiguring = 0;
    EXPECT_EQ(set_wifi_frequency("5", WriteThrough::Off), -1);
    EXPECT_THAT(
        done(),
        ElementsAre(does("read applied band"), does("read power"), does("read mode"), does("apply band 5"),
                    error("[Main] set_wifi_frequency: Failed to restart hostapd - with new wifi frequency")));
}

TEST_F(WifiFrequency, AFailureToStoreDoesNotKeepTheChangeBack)
{
    around.storing = false;
    EXPECT_EQ(set_wifi_frequency("5", WriteThrough::On), 0);
    EXPECT_THAT(done(), ElementsAre(does("read applied band"), does("store band 5"), does("read power"),
                                    does("read mode"), does("apply band 5"), does("announce WiFiFrequency")));
}

// SSID

TEST_F(WifiSsid, TheSsidThatIsAppliedAlreadySucceedsWithoutAWord)
{
    EXPECT_EQ(set_wifi_ssid("old", WriteThrough::On), 0);
    EXPECT_THAT(done(), ElementsAre(does("read applied SSID")));
}

TEST_F(WifiSsid, EveryByteOfTheComparisonCounts)
{
    around.ssid = std::string("old\0er", 6);
    EXPECT_EQ(set_wifi_ssid("old", WriteThrough::Off), 0);
    EXPECT_EQ(set_wifi_ssid("Old", WriteThrough::Off), 0);
    EXPECT_THAT(done(), ElementsAre(does("read applied SSID"), does("read power"), does("apply SSID 'old'"),
                                    does("announce SSID"), does("read applied SSID"), does("read power"),
                                    does("apply SSID 'Old'"), does("announce SSID")));
}

TEST_F(WifiSsid, ThirtyTwoBytesAreTakenAndThirtyThreeRefused)
{
    const std::string longest(32, 'x');
    EXPECT_EQ(set_wifi_ssid(longest, WriteThrough::On), 0);
    EXPECT_EQ(set_wifi_ssid(longest + 'x', WriteThrough::On), -1);
    EXPECT_THAT(done(),
                ElementsAre(does("read applied SSID"), does("store device name '" + longest + "'"),
                            does("read power"), does("apply SSID '" + longest + "'"), does("announce SSID"),
                            does("read applied SSID"), error("[Main] set_wifi_ssid: SSID is too long")));
}

TEST_F(WifiSsid, AnSsidThatIsTooLongButAppliedAlreadySucceeds)
{
    around.ssid = std::string(40, 'x');
    EXPECT_EQ(set_wifi_ssid(around.ssid, WriteThrough::On), 0);
    EXPECT_THAT(done(), ElementsAre(does("read applied SSID")));
}

TEST_F(WifiSsid, AnEmptySsidIsTaken)
{
    EXPECT_EQ(set_wifi_ssid("", WriteThrough::On), 0);
    EXPECT_THAT(done(), ElementsAre(does("read applied SSID"), does("store device name ''"),
                                    does("read power"), does("apply SSID ''"), does("announce SSID")));
}

TEST_F(WifiSsid, AChangeThatComesFromTheSettingsIsNotStored)
{
    EXPECT_EQ(set_wifi_ssid("new", WriteThrough::Off), 0);
    EXPECT_THAT(done(), ElementsAre(does("read applied SSID"), does("read power"), does("apply SSID 'new'"),
                                    does("announce SSID")));
}

TEST_F(WifiSsid, AStationGetsItsAccessPointReconfiguredAllTheSame)
{
    around.mode = WifiMode::Client;
    EXPECT_EQ(set_wifi_ssid("new", WriteThrough::On), 0);
    EXPECT_THAT(done(), ElementsAre(does("read applied SSID"), does("store device name 'new'"),
                                    does("read power"), does("apply SSID 'new'"), does("announce SSID")));
}

TEST_F(WifiSsid, AnUnreadableAppliedSsidIsLoggedAndTheChangeMade)
{
    around.hostapdReadable = 0;
    EXPECT_EQ(set_wifi_ssid("old", WriteThrough::Off), 0);
    EXPECT_THAT(done(),
                ElementsAre(does("read applied SSID"), error("[Main] set_wifi_ssid: Failed to get wifi ssid"),
                            does("read power"), does("apply SSID 'old'"), does("announce SSID")));
}

TEST_F(WifiSsid, WhileTheRadioIsOffTheSsidIsOnlyStored)
{
    around.enabled = 0;
    EXPECT_EQ(set_wifi_ssid("new", WriteThrough::On), 0);
    EXPECT_THAT(done(),
                ElementsAre(does("read applied SSID"), does("store device name 'new'"), does("read power"),
                            info("[Main] set_wifi_ssid: Changing SSID, while wifi is disabled")));
}

TEST_F(WifiSsid, AnAccessPointThatDoesNotRestartFailsAndWhatIsStoredStays)
{
    around.reconfiguring = 0;
    EXPECT_EQ(set_wifi_ssid("new", WriteThrough::On), -1);
    EXPECT_THAT(done(),
                ElementsAre(does("read applied SSID"), does("store device name 'new'"), does("read power"),
                            does("apply SSID 'new'"),
                            error("[Main] set_wifi_ssid: Failed to restart hostapd - with new SSID")));
}

TEST_F(WifiSsid, AFailureToStoreDoesNotKeepTheChangeBack)
{
    around.storing = false;
    EXPECT_EQ(set_wifi_ssid("new", WriteThrough::On), 0);
    EXPECT_THAT(done(), ElementsAre(does("read applied SSID"), does("store device name 'new'"),
                                    does("read power"), does("apply SSID 'new'"), does("announce SSID")));
}
