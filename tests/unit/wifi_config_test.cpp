#include "config/wifi_config.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <any>
#include <map>
#include <string>
#include <vector>

#include "config/settings_client.hpp"
#include "korrin-info/korrin_info.hpp"
#include "support/captured_log.hpp"

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::captured_log;
using testing_support::info;
using testing_support::warning;

namespace {

constexpr int kNoSuchSetting = -2;

/** Stored settings by "section.key", and what was asked of them. A setting that is missing can not be read or
 * written. */
std::map<std::string, std::any> stored;
std::vector<std::string> asked;

std::string model;
std::string serial;
int radioType = 1;

class WifiConfigTest : public testing::Test
{
protected:
    WifiConfigTest()
    {
        stored = {{"network.enabled", true},
                  {"network.mode", std::string("Client")},
                  {"network.frequency", std::string("5")},
                  {"device.deviceName", std::string("Kitchen")}};
        asked.clear();
        model = "Model";
        serial = "12-3456";
        radioType = 1;
        captured_log().clear();
    }

    static void store(const std::string& setting, const std::string& value) { stored[setting] = value; }

    static std::string read(const std::string& setting)
    {
        return std::any_cast<std::string>(stored.at(setting));
    }
};

using ReadWifiConfig = WifiConfigTest;
using SafeWifiConfig = WifiConfigTest;
using DumpWifiConfig = WifiConfigTest;
using SettingReaders = WifiConfigTest;
using SettingWriters = WifiConfigTest;
using DefaultSsid = WifiConfigTest;

} // namespace

// In the place of the settings daemon's client and of the device's identity

namespace Settingsd {

template <typename T>
int32_t SettingsDaemonDbusHandler::GetSetting(const std::string& section, const std::string& key, T& value)
{
    asked.push_back("get " + section + "." + key);
    const auto found = stored.find(section + "." + key);
    if (found == stored.end()) {
        return kNoSuchSetting;
    }
    value = std::any_cast<T>(found->second);
    return 0;
}

template <typename T>
int32_t SettingsDaemonDbusHandler::SetSetting(const std::string& section, const std::string& key, T value)
{
    asked.push_back("set " + section + "." + key);
    const auto found = stored.find(section + "." + key);
    if (found == stored.end()) {
        return kNoSuchSetting;
    }
    found->second = value;
    return 0;
}

template int32_t SettingsDaemonDbusHandler::GetSetting(const std::string&, const std::string&, bool&);
template int32_t SettingsDaemonDbusHandler::GetSetting(const std::string&, const std::string&, std::string&);
template int32_t SettingsDaemonDbusHandler::SetSetting(const std::string&, const std::string&, bool);
template int32_t SettingsDaemonDbusHandler::SetSetting(const std::string&, const std::string&, std::string);

} // namespace Settingsd

namespace KorrinInfo {

std::string ThisModel::DisplayName()
{
    return model;
}

std::string ThisKorrin::SerialNumber()
{
    return serial;
}

int ThisKorrin::RadioType()
{
    return radioType;
}

} // namespace KorrinInfo

TEST_F(ReadWifiConfig, FillsTheRecordWithOneReadPerSetting)
{
    WifiConfig config;
    config.clientSsid = "kept";
    ASSERT_TRUE(read_wifi_config(config));
    EXPECT_TRUE(config.enabled);
    EXPECT_EQ(config.mode, WifiMode::Client);
    EXPECT_EQ(config.band, WifiBand::Band5GHz);
    EXPECT_EQ(config.hostSsid, "Kitchen");
    EXPECT_EQ(config.clientSsid, "kept");
    EXPECT_THAT(asked, ElementsAre("get network.enabled", "get network.mode", "get network.frequency",
                                   "get device.deviceName"));
    EXPECT_THAT(captured_log().lines(), ElementsAre(info("Read settings from Settings Daemon")));
}

TEST_F(ReadWifiConfig, NothingIsLeftOfWhatTheRecordHeldBefore)
{
    stored["network.enabled"] = false;
    store("network.mode", "Host");
    store("network.frequency", "2.4");
    WifiConfig config;
    config.enabled = true;
    config.mode = WifiMode::Client;
    config.band = WifiBand::Band5GHz;
    ASSERT_TRUE(read_wifi_config(config));
    EXPECT_FALSE(config.enabled);
    EXPECT_EQ(config.mode, WifiMode::Host);
    EXPECT_EQ(config.band, WifiBand::Band2_4GHz);
}

TEST_F(ReadWifiConfig, AnEmptyDeviceNameIsTakenAsItIs)
{
    store("device.deviceName", "");
    WifiConfig config;
    config.hostSsid = "old";
    EXPECT_TRUE(read_wifi_config(config));
    EXPECT_EQ(config.hostSsid, "");
}

TEST_F(ReadWifiConfig, StopsAtAnUnreadableEnabled)
{
    stored.erase("network.enabled");
    WifiConfig config;
    EXPECT_FALSE(read_wifi_config(config));
    EXPECT_THAT(asked, ElementsAre("get network.enabled"));
    EXPECT_THAT(captured_log().lines(), ElementsAre(info("Read settings from Settings Daemon"),
                                                    warning("Failed to get 'enabled' setting")));
}

TEST_F(ReadWifiConfig, StopsAtAnUnreadableModeWithEnabledFilled)
{
    stored.erase("network.mode");
    WifiConfig config;
    config.mode = WifiMode::Client;
    EXPECT_FALSE(read_wifi_config(config));
    EXPECT_TRUE(config.enabled);
    EXPECT_EQ(config.mode, WifiMode::Client);
    EXPECT_THAT(asked, ElementsAre("get network.enabled", "get network.mode"));
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(info("Read settings from Settings Daemon"),
                            warning("Failed to get 'mode' setting"), warning("Failed to get WiFi mode")));
}

TEST_F(ReadWifiConfig, StopsAtAnUnreadableBandWithEnabledAndModeFilled)
{
    stored.erase("network.frequency");
    WifiConfig config;
    EXPECT_FALSE(read_wifi_config(config));
    EXPECT_EQ(config.mode, WifiMode::Client);
    EXPECT_THAT(asked, ElementsAre("get network.enabled", "get network.mode", "get network.frequency"));
    EXPECT_THAT(captured_log().lines(), ElementsAre(info("Read settings from Settings Daemon"),
                                                    warning("Failed to get 'frequency' setting")));
}

TEST_F(ReadWifiConfig, AnUnsetBandIsNotReplacedByTheDefaultOne)
{
    store("network.frequency", "");
    WifiConfig config;
    EXPECT_FALSE(read_wifi_config(config));
    EXPECT_THAT(captured_log().lines(), ElementsAre(info("Read settings from Settings Daemon"),
                                                    warning("Got unknown WiFi frequency band ''")));
}

TEST_F(ReadWifiConfig, AnUnknownBandIsAFailureThatNamesTheValue)
{
    store("network.frequency", "5.0");
    WifiConfig config;
    EXPECT_FALSE(read_wifi_config(config));
    EXPECT_THAT(captured_log().lines(), ElementsAre(info("Read settings from Settings Daemon"),
                                                    warning("Got unknown WiFi frequency band '5.0'")));
}

TEST_F(ReadWifiConfig, AnUnreadableDeviceNameLeavesTheThreeOthersFilled)
{
    stored.erase("device.deviceName");
    WifiConfig config;
    EXPECT_FALSE(read_wifi_config(config));
    EXPECT_TRUE(config.enabled);
    EXPECT_EQ(config.mode, WifiMode::Client);
    EXPECT_EQ(config.band, WifiBand::Band5GHz);
    EXPECT_EQ(config.hostSsid, "");
    EXPECT_THAT(captured_log().lines(), ElementsAre(info("Read settings from Settings Daemon"),
                                                    warning("Failed to get 'deviceName' setting"),
                                                    warning("Failed to fetch host ssid")));
}

TEST_F(SafeWifiConfig, IsAnAccessPointThatIsOnWithTheDefaultSsid)
{
    WifiConfig config;
    config.enabled = false;
    config.mode = WifiMode::Client;
    config.clientSsid = "kept";
    set_safe_wifi_config(config);
    EXPECT_TRUE(config.enabled);
    EXPECT_EQ(config.mode, WifiMode::Host);
    EXPECT_EQ(config.band, WifiBand::Band5GHz);
    EXPECT_EQ(config.hostSsid, "Model-3456");
    EXPECT_EQ(config.clientSsid, "kept");
    EXPECT_THAT(asked, IsEmpty());
}

TEST_F(SafeWifiConfig, TakesTheLowerBandOnAnyRadioTypeButOne)
{
    for (const int type : {0, 2, -1}) {
        radioType = type;
        WifiConfig config;
        config.band = WifiBand::Band5GHz;
        set_safe_wifi_config(config);
        EXPECT_EQ(config.band, WifiBand::Band2_4GHz) << type;
        EXPECT_FALSE(radio_supports_5ghz());
        EXPECT_EQ(default_frequency(), "2.4");
    }
    radioType = 1;
    EXPECT_TRUE(radio_supports_5ghz());
    EXPECT_EQ(default_frequency(), "5");
}

TEST_F(DumpWifiConfig, WritesEightLinesWithValuesInOneColumn)
{
    dump_wifi_config({true, WifiMode::Client, WifiBand::Band5GHz, "Kitchen", "Cafe"});
    const std::string line(38, '-');
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(info(line), info("WiFi config dump"), info(line),
                            info("Enabled:          Enabled"), info("Mode:             Client"),
                            info("Frequency band:   5.0 GHz"), info("Host SSID:        Kitchen"),
                            info("Client SSID:      Cafe")));
}

TEST_F(DumpWifiConfig, WritesTheOtherValues)
{
    dump_wifi_config({false, WifiMode::Host, WifiBand::Band2_4GHz, "", ""});
    const std::string line(38, '-');
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(info(line), info("WiFi config dump"), info(line),
                            info("Enabled:          Disabled"), info("Mode:             Host"),
                            info("Frequency band:   2.4 GHz"), info("Host SSID:        "),
                            info("Client SSID:      ")));
}

TEST_F(SettingReaders, EveryModeTextButClientMeansHost)
{
    for (const char* text : {"Host", "", "client", "Client ", "something"}) {
        store("network.mode", text);
        WifiMode mode = WifiMode::Client;
        EXPECT_TRUE(settings_get_wifi_mode(mode));
        EXPECT_EQ(mode, WifiMode::Host) << text;
    }
    store("network.mode", "Client");
    WifiMode mode = WifiMode::Host;
    EXPECT_TRUE(settings_get_wifi_mode(mode));
    EXPECT_EQ(mode, WifiMode::Client);
}

TEST_F(SettingReaders, AnUnsetBandIsTheDefaultOneOfTheRadio)
{
    store("network.frequency", "");
    std::string frequency;
    EXPECT_TRUE(settings_get_frequency(frequency));
    EXPECT_EQ(frequency, "5");
    radioType = 0;
    EXPECT_TRUE(settings_get_frequency(frequency));
    EXPECT_EQ(frequency, "2.4");
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(SettingReaders, TheTwoBandsArePassedOnWhateverTheRadio)
{
    radioType = 0;
    for (const char* text : {"2.4", "5"}) {
        store("network.frequency", text);
        std::string frequency;
        EXPECT_TRUE(settings_get_frequency(frequency));
        EXPECT_EQ(frequency, text);
    }
}

TEST_F(SettingReaders, AnInvalidBandIsRefusedWithTheNameOfTheSetting)
{
    store("network.frequency", "5.0");
    std::string frequency = "untouched";
    EXPECT_FALSE(settings_get_frequency(frequency));
    EXPECT_EQ(frequency, "untouched");
    EXPECT_THAT(captured_log().lines(), ElementsAre(warning("Got invalid value of 'frequency' setting")));
}

TEST_F(SettingReaders, LeaveTheirResultUntouchedWhenTheSettingCanNotBeRead)
{
    stored.clear();
    WifiMode mode = WifiMode::Client;
    std::string frequency = "untouched";
    std::string name = "untouched";
    EXPECT_FALSE(settings_get_wifi_mode(mode));
    EXPECT_FALSE(settings_get_frequency(frequency));
    EXPECT_FALSE(settings_get_device_name(name));
    EXPECT_EQ(mode, WifiMode::Client);
    EXPECT_EQ(frequency, "untouched");
    EXPECT_EQ(name, "untouched");
    EXPECT_THAT(captured_log().lines(), ElementsAre(warning("Failed to get 'mode' setting"),
                                                    warning("Failed to get 'frequency' setting"),
                                                    warning("Failed to get 'deviceName' setting")));
}

TEST_F(SettingWriters, WriteOneSettingEachWithoutLookingAtTheValue)
{
    EXPECT_TRUE(settings_set_wifi_enabled(false));
    EXPECT_TRUE(settings_set_wifi_mode(WifiMode::Host));
    EXPECT_TRUE(settings_set_frequency("anything"));
    EXPECT_TRUE(settings_set_device_name("Cellar"));
    EXPECT_FALSE(std::any_cast<bool>(stored.at("network.enabled")));
    EXPECT_EQ(read("network.mode"), "Host");
    EXPECT_EQ(read("network.frequency"), "anything");
    EXPECT_EQ(read("device.deviceName"), "Cellar");
    EXPECT_THAT(asked, ElementsAre("set network.enabled", "set network.mode", "set network.frequency",
                                   "set device.deviceName"));
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(SettingWriters, EveryModeButClientIsStoredAsHost)
{
    EXPECT_TRUE(settings_set_wifi_mode(static_cast<WifiMode>(7)));
    EXPECT_EQ(read("network.mode"), "Host");
    EXPECT_TRUE(settings_set_wifi_mode(WifiMode::Client));
    EXPECT_EQ(read("network.mode"), "Client");
}

TEST_F(SettingWriters, AFailureIsAWarningThatNamesTheSetting)
{
    stored.clear();
    EXPECT_FALSE(settings_set_wifi_enabled(true));
    EXPECT_FALSE(settings_set_wifi_mode(WifiMode::Client));
    EXPECT_FALSE(settings_set_frequency("5"));
    EXPECT_FALSE(settings_set_device_name("Cellar"));
    EXPECT_THAT(captured_log().lines(), ElementsAre(warning("Failed to set 'enabled' setting"),
                                                    warning("Failed to set 'mode' setting"),
                                                    warning("Failed to set 'frequency' setting"),
                                                    warning("Failed to set 'deviceName' setting")));
}

TEST_F(DefaultSsid, IsTheModelAndWhatFollowsTheFirstHyphenOfTheSerialNumber)
{
    const std::map<std::string, std::string> ssids = {{"12-3456", "Model-3456"},  {"AB-12-34", "Model-12-34"},
                                                      {"123456", "Model-123456"}, {"12-", "Model-"},
                                                      {"-12", "Model-12"},        {"", "Model-"}};
    for (const auto& [number, ssid] : ssids) {
        serial = number;
        captured_log().clear();
        EXPECT_EQ(get_default_ssid(), ssid);
        EXPECT_THAT(captured_log().lines(),
                    ElementsAre(info("model name: Model"), info("serial number : " + number),
                                info("default ssid: " + ssid)));
    }
}

TEST_F(DefaultSsid, BeginsWithAHyphenWithoutAModelAndMayBeTooLong)
{
    model = "";
    EXPECT_EQ(get_default_ssid(), "-3456");
    model = std::string(40, 'M');
    EXPECT_EQ(get_default_ssid(), model + "-3456");
}
