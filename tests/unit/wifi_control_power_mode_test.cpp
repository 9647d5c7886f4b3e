#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "core/wifi_control.hpp"
#include "support/control_surroundings.hpp"

using testing::ElementsAre;
using testing_support::does;
using testing_support::error;
using testing_support::WifiControl;

namespace {

using WifiState = WifiControl;
using WifiModeControl = WifiControl;

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

} // namespace
