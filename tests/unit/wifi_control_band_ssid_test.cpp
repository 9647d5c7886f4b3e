#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "core/wifi_control.hpp"
#include "support/control_surroundings.hpp"

using testing::ElementsAre;
using testing_support::does;
using testing_support::error;
using testing_support::info;
using testing_support::WifiControl;

namespace {

using WifiFrequency = WifiControl;
using WifiSsid = WifiControl;

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

TEST_F(WifiSsid, ANameThatGivesHostapdWhatItHasAlreadySucceedsWithoutAWord)
{
    EXPECT_EQ(set_wifi_ssid("old\nwpa=0", WriteThrough::On), 0);
    EXPECT_EQ(set_wifi_ssid("old\n" + std::string(28, 'x'), WriteThrough::On), 0);
    EXPECT_THAT(done(), ElementsAre(does("read applied SSID"), does("read applied SSID")));
}

TEST_F(WifiSsid, ANameThatIsTooLongIsRefusedAlsoWhereItsBeginningIsApplied)
{
    EXPECT_EQ(set_wifi_ssid("old\n" + std::string(32, 'x'), WriteThrough::On), -1);
    EXPECT_THAT(done(),
                ElementsAre(does("read applied SSID"), error("[Main] set_wifi_ssid: SSID is too long")));
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

} // namespace
