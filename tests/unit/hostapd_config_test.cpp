#include "radio/hostapd_config.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <syslog.h>

#include "config/wifi_config.hpp"
#include "support/captured_log.hpp"
#include "support/temp_folder.hpp"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing_support::captured_log;
using testing_support::line;

namespace {

constexpr const char* kRadarChannels = "52 56 60 64 100 104 108 112 116 120 124 128 132 136 140 144";

/** What the replaced configuration says. */
struct
{
    bool nameReadable = true;
    bool frequencyReadable = true;
    std::string name = "Attic";
    std::string frequency = "2.4";
    bool fiveGhz = true;
} settings;

class HostapdConfigFile : public testing::Test
{
protected:
    void SetUp() override
    {
        settings = {};
        captured_log().clear();
    }

    std::string path(const std::string& name) const { return (folder.path() / name).string(); }

    HostapdConfig read(const std::string& text) const
    {
        std::ofstream(path("template"), std::ios::binary) << text;
        HostapdConfig config;
        EXPECT_EQ(hostapd_read_conf(path("template"), config), 1);
        return config;
    }

    std::string written(const HostapdConfig& config) const
    {
        EXPECT_EQ(hostapd_write_conf(path("runtime"), config), 1);
        std::ifstream file(path("runtime"), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    testing_support::TempFolder folder;
};

} // namespace

bool settings_get_device_name(std::string& name)
{
    name = settings.nameReadable ? settings.name : name;
    return settings.nameReadable;
}
bool settings_get_frequency(std::string& frequency)
{
    frequency = settings.frequencyReadable ? settings.frequency : frequency;
    return settings.frequencyReadable;
}
std::string get_default_ssid()
{
    return "Default-1";
}
bool radio_supports_5ghz()
{
    return settings.fiveGhz;
}

namespace {

TEST(HostapdBand, Only5AndAStandFor5Ghz)
{
    EXPECT_EQ(hostapd_hw_mode_of("5"), "a");
    EXPECT_EQ(hostapd_frequency_of("a"), "5");
    for (const char* text : {"2.4", "", "5.0", "g", "A"}) {
        EXPECT_EQ(hostapd_hw_mode_of(text), "g") << text;
        EXPECT_EQ(hostapd_frequency_of(text), "2.4") << text;
    }
}

// Reading

TEST_F(HostapdConfigFile, CommentsInTheFirstColumnAndEmptyLinesAreSkipped)
{
    EXPECT_THAT(read("# note\n\n#a=b\ninterface=wlan0\n\n"), ElementsAre(Pair("interface", "wlan0")));
}

TEST_F(HostapdConfigFile, ALineIsSplitAtItsFirstEqualsSign)
{
    EXPECT_THAT(read("ssid=my=net\n=empty key\nempty value=\n==\n"),
                ElementsAre(Pair("", "="), Pair("empty value", ""), Pair("ssid", "my=net")));
}

TEST_F(HostapdConfigFile, ALineWithoutEqualsSignIsItsOwnKeyAndValue)
{
    EXPECT_THAT(read("foo\n  # note\n \n"),
                ElementsAre(Pair(" ", " "), Pair("  # note", "  # note"), Pair("foo", "foo")));
}

TEST_F(HostapdConfigFile, NothingIsTrimmed)
{
    EXPECT_THAT(read(" ssid = a \r\n\r\nwpa=2\r\n"),
                ElementsAre(Pair("\r", "\r"), Pair(" ssid ", " a \r"), Pair("wpa", "2\r")));
}

TEST_F(HostapdConfigFile, TheLastOfEqualKeysCountsAndTheLastLineNeedsNoEnd)
{
    EXPECT_THAT(read("ssid=one\nwpa=2\nssid=two"), ElementsAre(Pair("ssid", "two"), Pair("wpa", "2")));
}

TEST_F(HostapdConfigFile, KeysAreInByteOrder)
{
    EXPECT_THAT(read("wpa2=\nwpa=\nhw_mode=\n\xc3\xa9=\nZ=\nwpa_key=\n"),
                ElementsAre(Pair("Z", ""), Pair("hw_mode", ""), Pair("wpa", ""), Pair("wpa2", ""),
                            Pair("wpa_key", ""), Pair("\xc3\xa9", "")));
}

TEST_F(HostapdConfigFile, AnEmptyFileHasNoEntries)
{
    EXPECT_THAT(read(""), IsEmpty());
}

TEST_F(HostapdConfigFile, EntriesAreAddedToThoseThatAreThere)
{
    std::ofstream(path("template")) << "a=new\n";
    HostapdConfig config = {{"a", "old"}, {"b", "kept"}};
    EXPECT_EQ(hostapd_read_conf(path("template"), config), 1);
    EXPECT_THAT(config, ElementsAre(Pair("a", "new"), Pair("b", "kept")));
}

TEST_F(HostapdConfigFile, AFileThatCanNotBeOpenedIsReported)
{
    HostapdConfig config;
    EXPECT_EQ(hostapd_read_conf(path("absent"), config), 0);
    EXPECT_THAT(config, IsEmpty());
    EXPECT_THAT(
        captured_log().lines(),
        ElementsAre(line(LOG_ERR, "[Hostapd] Failed to open '" + path("absent") + "' config file for read")));
}

TEST_F(HostapdConfigFile, AFileThatCanNotBeReadToItsEndIsReportedAndNothingOfItUsed)
{
    // A folder can be opened, and is not read; a file of /proc/self/mem is refused in the middle.
    std::filesystem::create_directory(path("folder"));
    HostapdConfig config = {{"a", "kept"}};
    for (const std::string& unreadable : {path("folder"), std::string("/proc/self/mem")}) {
        captured_log().clear();
        EXPECT_EQ(hostapd_read_conf(unreadable, config), 0) << unreadable;
        EXPECT_THAT(config, ElementsAre(Pair("a", "kept")));
        EXPECT_THAT(
            captured_log().lines(),
            ElementsAre(line(LOG_ERR, "[Hostapd] Failed to open '" + unreadable + "' config file for read")));
    }
}

TEST(HostapdValue, EndsAtItsFirstLineBreak)
{
    EXPECT_EQ(hostapd_value_of("net\nwpa=0\nx"), "net");
    EXPECT_EQ(hostapd_value_of("\nnet"), "");
    EXPECT_EQ(hostapd_value_of(""), "");
    EXPECT_EQ(hostapd_value_of(" net\r "), " net\r ");
}

// Writing

TEST_F(HostapdConfigFile, EntriesAreWrittenOneToALineOverWhatWasThere)
{
    std::ofstream(path("runtime")) << std::string(1000, 'x');
    EXPECT_EQ(written({{"wpa", "2"}, {"ssid", "my=net"}, {"hw_mode", ""}, {"foo", "foo"}}),
              "foo=foo\nhw_mode=\nssid=my=net\nwpa=2\n");
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(HostapdConfigFile, NoEntriesMakeAnEmptyFile)
{
    EXPECT_EQ(written({}), "");
}

TEST_F(HostapdConfigFile, IsForItsOwnerOnlyAlsoWhenItWasNotBefore)
{
    for (const bool before : {false, true}) {
        if (before) {
            std::filesystem::permissions(path("runtime"), std::filesystem::perms::all);
        }
        written({{"wpa_passphrase", "secret"}});
        struct stat status = {};
        ASSERT_EQ(stat(path("runtime").c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0600U);
    }
}

TEST_F(HostapdConfigFile, AValueEndsAtItsFirstLineBreakAndOneWarningNamesItsKey)
{
    EXPECT_EQ(written({{"a", "1"}, {"ssid", "net\nwpa=0\nx"}, {"z", "\r"}}), "a=1\nssid=net\nz=\r\n");
    EXPECT_THAT(
        captured_log().lines(),
        ElementsAre(line(LOG_WARNING, "[Hostapd] Value of 'ssid' holds a line break and is cut there")));
}

TEST_F(HostapdConfigFile, AFileThatCanNotBeWrittenIsReported)
{
    std::filesystem::create_directory(path("folder"));
    for (const std::string& target : {path("folder"), path("absent/file")}) {
        captured_log().clear();
        EXPECT_EQ(hostapd_write_conf(target, {{"a", "b"}}), 0);
        EXPECT_THAT(captured_log().lines(), ElementsAre(line(LOG_ERR, "[Hostapd] Failed to open '" + target +
                                                                          "' config file for write")));
    }
}

TEST_F(HostapdConfigFile, WhereAStepFailsTheFileOfBeforeStays)
{
    // Stands for every step that fails; each of them is tried in replace_file_test.cpp.
    std::ofstream(path("runtime")) << "wpa=2\n";
    std::filesystem::create_directory(path("runtime.tmp"));
    EXPECT_EQ(hostapd_write_conf(path("runtime"), {{"a", "b"}}), 0);
    std::ifstream file(path("runtime"));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "wpa=2\n");
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(line(LOG_ERR, "[Hostapd] Failed to open '" + path("runtime") +
                                              "' config file for write")));
}

TEST_F(HostapdConfigFile, TheDumpHasALineForEachEntry)
{
    hostapd_dump_conf({{"wpa", "2"}, {"hw_mode", ""}, {"%s", "%n"}});
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(line(LOG_INFO, "%s:%n"), line(LOG_INFO, "hw_mode:"), line(LOG_INFO, "wpa:2")));
}

// Overrides

TEST_F(HostapdConfigFile, OverridesAreNameBandAndChannels)
{
    settings.frequency = "5";
    HostapdConfig overrides;
    hostapd_get_overrides(overrides);
    EXPECT_THAT(overrides, ElementsAre(Pair("acs_blacklist", kRadarChannels), Pair("hw_mode", "a"),
                                       Pair("ssid", "Attic")));
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(HostapdConfigFile, OverridesFallBackToTheDefaultNameAnd24Ghz)
{
    settings.nameReadable = false;
    settings.frequencyReadable = false;
    settings.frequency = "5";
    HostapdConfig overrides;
    hostapd_get_overrides(overrides);
    EXPECT_THAT(overrides, ElementsAre(Pair("acs_blacklist", kRadarChannels), Pair("hw_mode", "g"),
                                       Pair("ssid", "Default-1")));
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(line(LOG_WARNING, "[WiFi] Failed to get AP ssid, use default"),
                            line(LOG_WARNING, "[WiFi] Failed to get AP freq, use default (2.4)")));
}

TEST_F(HostapdConfigFile, OverridesReplaceAndAddInKeyOrder)
{
    HostapdConfig config = {{"ssid", "template"}, {"wpa", "2"}, {"hw_mode", "b"}};
    hostapd_merge_conf({{"ssid", "Attic"}, {"hw_mode", "a"}, {"acs_blacklist", "52"}}, config);
    EXPECT_THAT(config, ElementsAre(Pair("acs_blacklist", "52"), Pair("hw_mode", "a"), Pair("ssid", "Attic"),
                                    Pair("wpa", "2")));
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(line(LOG_INFO, "[Hostapd] Setting 'acs_blacklist' to '52'"),
                            line(LOG_INFO, "[Hostapd] Setting 'hw_mode' to 'a'"),
                            line(LOG_INFO, "[Hostapd] Setting 'ssid' to 'Attic'")));
}

TEST_F(HostapdConfigFile, WithoutAnyHardwareModeAnEmptyOneIsAdded)
{
    settings.fiveGhz = false;
    HostapdConfig config = {{"wpa", "2"}};
    hostapd_merge_conf({}, config);
    EXPECT_THAT(config, ElementsAre(Pair("hw_mode", ""), Pair("wpa", "2")));
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(HostapdConfigFile, ARadioWithout5GhzHasModeAReplacedAndNothingElse)
{
    settings.fiveGhz = false;
    HostapdConfig config = {{"acs_blacklist", "52"}, {"hw_mode", "a"}};
    hostapd_merge_conf({}, config);
    EXPECT_THAT(config, ElementsAre(Pair("acs_blacklist", "52"), Pair("hw_mode", "g")));
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(line(LOG_WARNING, "[Hostapd] hostapd_set_conf: This device do not support 5GHz, "
                                              "ovverride and set to 2.4ghz")));
}

TEST_F(HostapdConfigFile, OtherModesAreLeftAloneOnARadioWithout5Ghz)
{
    settings.fiveGhz = false;
    for (const char* mode : {"g", "b", "a ", "a\r", "ad"}) {
        HostapdConfig config = {{"hw_mode", mode}};
        hostapd_merge_conf({}, config);
        EXPECT_THAT(config, ElementsAre(Pair("hw_mode", mode)));
    }
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

} // namespace
