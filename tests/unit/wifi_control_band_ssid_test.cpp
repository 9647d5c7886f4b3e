#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "core/wifi_control.hpp"
#include "support/control_surroundings.hpp"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing_support::captured_log;
using testing_support::does;
using testing_support::error;
using testing_support::info;
using testing_support::LogLine;
using testing_support::Surroundings;
using testing_support::WifiControl;

namespace {

using WifiFrequency = WifiControl;
using WifiSsid = WifiControl;

/** What an operation finds, what it is given, what it yields, and each of its steps and lines. */
struct Case
{
    const char* name;
    Surroundings given;
    std::string value;
    WriteThrough writeThrough;
    int result;
    std::vector<LogLine> steps;
};

void PrintTo(const Case& tested, std::ostream* out)
{
    *out << tested.name;
}

std::string name_of_case(const testing::TestParamInfo<Case>& tested)
{
    return tested.param.name;
}

class ChangeOfBand : public WifiControl, public testing::WithParamInterface<Case>
{
};

class ChangeOfSsid : public WifiControl, public testing::WithParamInterface<Case>
{
};

void expect_steps(int (*operation)(const std::string&, WriteThrough), const Case& tested)
{
    around = tested.given;
    EXPECT_EQ(operation(tested.value, tested.writeThrough), tested.result);
    EXPECT_THAT(captured_log().lines(), ElementsAreArray(tested.steps));
}

template <typename... Lines>
std::vector<LogLine> steps(const Lines&... lines)
{
    return {lines...};
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

const std::vector<Case> kChangesOfBand = {
    Case{"FiveGigahertzIsRefusedOnARadioWithoutIt", Surroundings{.supports5GHz = false}, "5",
         WriteThrough::On, -1, steps(error("[Main] set_wifi_frequency: This device do not support 5GHz"))},
    Case{"TheLowerBandIsTakenOnARadioWithoutFiveGigahertz",
         Surroundings{.supports5GHz = false, .frequency = "5"}, "2.4", WriteThrough::Off, 0,
         steps(does("read applied band"), does("read power"), does("read mode"), does("apply band 2.4"),
               does("announce WiFiFrequency"))},
    Case{"TheBandThatIsAppliedAlreadySucceedsAndIsNotStored", Surroundings{}, "2.4", WriteThrough::On, 0,
         steps(does("read applied band"), error("[Main] set_wifi_frequency: already on wifi frequency 2.4"))},
    Case{"AChangeIsStoredAppliedAndAnnounced", Surroundings{}, "5", WriteThrough::On, 0,
         steps(does("read applied band"), does("store band 5"), does("read power"), does("read mode"),
               does("apply band 5"), does("announce WiFiFrequency"))},
    Case{"AnUnreadableAppliedBandIsLoggedAndTheChangeMade", Surroundings{.hostapdReadable = 0}, "2.4",
         WriteThrough::Off, 0,
         steps(does("read applied band"), error("[Main] set_wifi_frequency: Failed to read wifi frequency"),
               does("read power"), does("read mode"), does("apply band 2.4"),
               does("announce WiFiFrequency"))},
    Case{"WhileTheRadioIsOffTheBandIsOnlyStored", Surroundings{.enabled = 0}, "5", WriteThrough::On, 0,
         steps(does("read applied band"), does("store band 5"), does("read power"),
               info("[Main] set_wifi_frequency: Changing frequency, while wifi is disabled"))},
    Case{"AnUnreadableModeFailsAfterTheBandWasStored", Surroundings{.modeReadable = false}, "5",
         WriteThrough::On, -1,
         steps(does("read applied band"), does("store band 5"), does("read power"), does("read mode"),
               error("[Main] set_wifi_frequency: Failed to read wifi mode"))},
    Case{"AStationFailsAfterTheBandWasStored", Surroundings{.mode = WifiMode::Client}, "5", WriteThrough::On,
         -1,
         steps(does("read applied band"), does("store band 5"), does("read power"), does("read mode"),
               error("[Main] set_wifi_frequency: Failed, Wifi is not in host mode"))},
    Case{"AnAccessPointThatDoesNotRestartFailsAndIsNotAnnounced", Surroundings{.reconfiguring = 0}, "5",
         WriteThrough::Off, -1,
         steps(does("read applied band"), does("read power"), does("read mode"), does("apply band 5"),
               error("[Main] set_wifi_frequency: Failed to restart hostapd - with new wifi frequency"))},
    Case{"AFailureToStoreDoesNotKeepTheChangeBack", Surroundings{.storing = false}, "5", WriteThrough::On, 0,
         steps(does("read applied band"), does("store band 5"), does("read power"), does("read mode"),
               does("apply band 5"), does("announce WiFiFrequency"))}};

TEST_P(ChangeOfBand, YieldsItsResultAfterTheseSteps)
{
    expect_steps(set_wifi_frequency, GetParam());
}

INSTANTIATE_TEST_SUITE_P(All, ChangeOfBand, testing::ValuesIn(kChangesOfBand), name_of_case);

// SSID

TEST_F(WifiSsid, ANameThatGivesHostapdWhatItHasAlreadySucceedsWithoutAWord)
{
    EXPECT_EQ(set_wifi_ssid("old\nwpa=0", WriteThrough::On), 0);
    EXPECT_EQ(set_wifi_ssid("old\n" + std::string(28, 'x'), WriteThrough::On), 0);
    EXPECT_THAT(done(), ElementsAre(does("read applied SSID"), does("read applied SSID")));
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

const std::vector<Case> kChangesOfSsid = {
    Case{"TheSsidThatIsAppliedAlreadySucceedsWithoutAWord", Surroundings{}, "old", WriteThrough::On, 0,
         steps(does("read applied SSID"))},
    Case{"ANameThatIsTooLongIsRefusedAlsoWhereItsBeginningIsApplied", Surroundings{},
         "old\n" + std::string(32, 'x'), WriteThrough::On, -1,
         steps(does("read applied SSID"), error("[Main] set_wifi_ssid: SSID is too long"))},
    Case{"AnSsidThatIsTooLongButAppliedAlreadySucceeds", Surroundings{.ssid = std::string(40, 'x')},
         std::string(40, 'x'), WriteThrough::On, 0, steps(does("read applied SSID"))},
    Case{"AnEmptySsidIsTaken", Surroundings{}, "", WriteThrough::On, 0,
         steps(does("read applied SSID"), does("store device name ''"), does("read power"),
               does("apply SSID ''"), does("announce SSID"))},
    Case{"AChangeThatComesFromTheSettingsIsNotStored", Surroundings{}, "new", WriteThrough::Off, 0,
         steps(does("read applied SSID"), does("read power"), does("apply SSID 'new'"),
               does("announce SSID"))},
    Case{"AStationGetsItsAccessPointReconfiguredAllTheSame", Surroundings{.mode = WifiMode::Client}, "new",
         WriteThrough::On, 0,
         steps(does("read applied SSID"), does("store device name 'new'"), does("read power"),
               does("apply SSID 'new'"), does("announce SSID"))},
    Case{"AnUnreadableAppliedSsidIsLoggedAndTheChangeMade", Surroundings{.hostapdReadable = 0}, "old",
         WriteThrough::Off, 0,
         steps(does("read applied SSID"), error("[Main] set_wifi_ssid: Failed to get wifi ssid"),
               does("read power"), does("apply SSID 'old'"), does("announce SSID"))},
    Case{"WhileTheRadioIsOffTheSsidIsOnlyStored", Surroundings{.enabled = 0}, "new", WriteThrough::On, 0,
         steps(does("read applied SSID"), does("store device name 'new'"), does("read power"),
               info("[Main] set_wifi_ssid: Changing SSID, while wifi is disabled"))},
    Case{"AnAccessPointThatDoesNotRestartFailsAndWhatIsStoredStays", Surroundings{.reconfiguring = 0}, "new",
         WriteThrough::On, -1,
         steps(does("read applied SSID"), does("store device name 'new'"), does("read power"),
               does("apply SSID 'new'"),
               error("[Main] set_wifi_ssid: Failed to restart hostapd - with new SSID"))},
    Case{"AFailureToStoreDoesNotKeepTheChangeBack", Surroundings{.storing = false}, "new", WriteThrough::On,
         0,
         steps(does("read applied SSID"), does("store device name 'new'"), does("read power"),
               does("apply SSID 'new'"), does("announce SSID"))}};

TEST_P(ChangeOfSsid, YieldsItsResultAfterTheseSteps)
{
    expect_steps(set_wifi_ssid, GetParam());
}

INSTANTIATE_TEST_SUITE_P(All, ChangeOfSsid, testing::ValuesIn(kChangesOfSsid), name_of_case);

} // namespace
