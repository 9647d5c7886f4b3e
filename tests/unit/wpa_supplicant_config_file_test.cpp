#include "radio/wpa_supplicant_config_file.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <syslog.h>

#include "support/captured_log.hpp"
#include "support/temp_folder.hpp"
#include "utils/shell_commands.hpp"

// The file's path is fixed: opening it is diverted into a folder of the test's own.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::captured_log;
using testing_support::LogLine;
using testing_support::TempFolder;

const std::string kPath = "/etc/wpa_supplicant/wpa_supplicant-nl80211-wlan0.conf";
const std::string kRedirection = " > " + kPath;

std::vector<std::string> commands;
int status = 0;
std::string diverted; // where kPath leads; empty where it can not be opened

FILE* open_diverted(const char* function, const char* path, const char* mode)
{
    auto* const original = reinterpret_cast<decltype(fopen)*>(dlsym(RTLD_NEXT, function));
    if (path != kPath) {
        return original(path, mode);
    }
    if (diverted.empty()) {
        errno = EACCES;
        return nullptr;
    }
    return original(diverted.c_str(), mode);
}

} // namespace

extern "C" {

FILE* fopen(const char* path, const char* mode)
{
    return open_diverted("fopen", path, mode);
}

FILE* fopen64(const char* path, const char* mode)
{
    return open_diverted("fopen64", path, mode);
}
}

int utils_do_system_call(const std::string& command)
{
    commands.push_back(command);
    return status;
}
bool utils_flush_ip()
{
    return false;
}
bool utils_add_ip(const std::string&)
{
    return false;
}

namespace {

class ConfigFile : public testing::Test
{
protected:
    void SetUp() override
    {
        commands.clear();
        status = 0;
        diverted = folder.file("station.conf");
        captured_log().clear();
    }

    TempFolder folder;
};

TEST_F(ConfigFile, OfAnOpenNetworkHoldsExactlyTheseLines)
{
    EXPECT_TRUE(wpa_supplicant_write_open_config("Free Wi-Fi"));
    EXPECT_EQ(folder.read("station.conf"), "ctrl_interface=/var/run/wpa_supplicant\n"
                                           "ctrl_interface_group=0\n"
                                           "network={\n"
                                           "\tssid=\"Free Wi-Fi\"\n"
                                           "\tkey_mgmt=NONE\n"
                                           "}\n");
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(ConfigFile, TakesThePlaceOfAnEarlierLongerOne)
{
    EXPECT_TRUE(wpa_supplicant_write_open_config(std::string(500, 'x')));
    EXPECT_TRUE(wpa_supplicant_write_open_config(""));
    EXPECT_EQ(folder.read("station.conf"), "ctrl_interface=/var/run/wpa_supplicant\nctrl_interface_group=0\n"
                                           "network={\n\tssid=\"\"\n\tkey_mgmt=NONE\n}\n");
}

TEST_F(ConfigFile, ThatCanNotBeOpenedIsAFailure)
{
    diverted.clear();
    EXPECT_FALSE(wpa_supplicant_write_open_config("cafe"));
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_ERR, "Unable to write to wpa_supplicant configuration file"}));
}

TEST_F(ConfigFile, ThatThereIsNoRoomForIsAFailure)
{
    diverted = "/dev/full";
    EXPECT_FALSE(wpa_supplicant_write_open_config("cafe"));
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_ERR, "Unable to write to wpa_supplicant configuration file"}));
}

TEST_F(ConfigFile, OfAProtectedNetworkIsMadeByACommand)
{
    EXPECT_TRUE(wpa_supplicant_gen_passphrase("cafe", "it's \"secret\""));
    EXPECT_THAT(commands, ElementsAre("wpa_passphrase 'cafe' 'it's \"secret\"'" + kRedirection));
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_INFO, "wpa_supplicant_gen_passphrase: SSID generated from passphrase "
                                              "successfully."}));
}

TEST_F(ConfigFile, FailsWithTheStatusOfTheCommand)
{
    status = 256;
    EXPECT_FALSE(wpa_supplicant_gen_passphrase("cafe", "secret12"));
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_ERR, "wpa_supplicant_gen_passphrase: Unable to generate ssid from "
                                             "passphrase, error: 256"}));
}

TEST_F(ConfigFile, IsMadeByACommandOfAtMost255Characters)
{
    EXPECT_TRUE(wpa_supplicant_gen_passphrase(std::string(32, 's'), std::string(300, 'p')));
    ASSERT_EQ(commands.size(), 1U);
    EXPECT_EQ(commands[0].size(), 255U);
    EXPECT_EQ(commands[0],
              ("wpa_passphrase '" + std::string(32, 's') + "' '" + std::string(300, 'p')).substr(0, 255));
}

TEST_F(ConfigFile, IsWrittenByTheOneOrTheOther)
{
    EXPECT_TRUE(wpa_supplicant_configure("cafe", "secret12"));
    EXPECT_EQ(commands.size(), 1U);
    EXPECT_FALSE(folder.has("station.conf"));
    EXPECT_TRUE(wpa_supplicant_configure("cafe", ""));
    EXPECT_EQ(commands.size(), 1U);
    EXPECT_TRUE(folder.has("station.conf"));
    status = 1;
    diverted.clear();
    EXPECT_FALSE(wpa_supplicant_configure("cafe", "secret12"));
    EXPECT_FALSE(wpa_supplicant_configure("cafe", ""));
}

} // namespace
