#include "radio/access_points.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <any>
#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include <syslog.h>
#include <systemd/sd-bus.h>

#include "dbus-helper/sdbus_utils.hpp"
#include "support/captured_log.hpp"

// The list over replaced property calls: no bus is opened.

namespace {

using sdbus_utils::TypedPropertyMap;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::captured_log;
using testing_support::LogLine;

/** The air as wpa_supplicant would tell it. */
struct
{
    int listed = 0;
    std::vector<std::string> paths;
    std::map<std::string, TypedPropertyMap> properties;
    int opensLeft = 100;
    std::vector<std::string> hanging; // paths whose properties are asked for in vain
    int asked = 0;
} air;

std::any bytes(const std::string& text)
{
    return std::vector<uint8_t>(text.begin(), text.end());
}

std::any rsn(const std::vector<std::string>& keyMgmt)
{
    return std::map<std::string, std::any>{{"KeyMgmt", keyMgmt}, {"Group", std::string("ccmp")}};
}

void add_bss(const std::string& ssid, int16_t level, bool privacy, const std::vector<std::string>& keyMgmt)
{
    const std::string path = "/bss/" + std::to_string(air.paths.size());
    air.paths.push_back(path);
    air.properties[path] = {{"SSID", {"ay", bytes(ssid)}},
                            {"Signal", {"n", level}},
                            {"Privacy", {"b", privacy}},
                            {"RSN", {"a{sv}", rsn(keyMgmt)}}};
}

class AccessPointList : public testing::Test
{
protected:
    void SetUp() override
    {
        air = {};
        captured_log().clear();
    }
};

} // namespace

extern "C" int sd_bus_open_system(sd_bus** bus)
{
    *bus = nullptr;
    return air.opensLeft-- > 0 ? 0 : -ENOENT;
}

namespace sdbus_utils {

int GetProperty(sd_bus*, const char*, const char*, const char*, const char*, bool&, std::string&)
{
    return -ENOTSUP;
}
int GetProperty(sd_bus*, const char*, const char*, const char*, const char*, std::string&, std::string&)
{
    return -ENOTSUP;
}
int GetProperty(sd_bus*, const char*, const char*, const char*, const char*, std::vector<std::string>& value,
                std::string&)
{
    value = air.paths;
    return air.listed;
}
int SetProperty(sd_bus*, const char*, const char*, const char*, const char*, bool, std::string&)
{
    return -ENOTSUP;
}
int SetProperty(sd_bus*, const char*, const char*, const char*, const char*, const std::string&, std::string&)
{
    return -ENOTSUP;
}
int GetAllProperties(sd_bus*, const std::string&, const std::string& path, const std::string&,
                     TypedPropertyMap& properties)
{
    ++air.asked;
    const auto found = air.properties.find(path);
    if (found == air.properties.end()) {
        return -ENOENT;
    }
    // What had come of one that is given up is there, too.
    properties = found->second;
    return std::find(air.hanging.begin(), air.hanging.end(), path) == air.hanging.end() ? 0 : -ETIMEDOUT;
}

} // namespace sdbus_utils

namespace {

TEST_F(AccessPointList, HoldsEveryFieldOfABss)
{
    add_bss(std::string("nul\0\xff", 5), -45, true, {"sae", "wpa-psk"});
    AccessPoints list;
    ASSERT_EQ(wpa_supplicant_get_access_points(list), 1);
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].path, "/bss/0");
    EXPECT_EQ(list[0].ssid, std::string("nul\0\xff", 5));
    EXPECT_EQ(list[0].privacy, 1);
    EXPECT_EQ(list[0].signal, -45);
    EXPECT_TRUE(list[0].wpa_psk);
}

TEST_F(AccessPointList, OfEqualNamesIsThePathOfTheStrongest)
{
    add_bss("cafe", -70, true, {"wpa-psk"});
    add_bss("cafe", -40, false, {});
    add_bss("cafe", -41, true, {"wpa-psk"});
    AccessPoints list;
    ASSERT_EQ(wpa_supplicant_get_access_points(list), 1);
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].path, "/bss/1");
    EXPECT_FALSE(list[0].wpa_psk);
}

TEST_F(AccessPointList, NamesThatDifferAfterANulAreTwo)
{
    add_bss(std::string("net\0a", 5), -40, true, {});
    add_bss(std::string("net\0b", 5), -50, true, {});
    AccessPoints list;
    ASSERT_EQ(wpa_supplicant_get_access_points(list), 1);
    EXPECT_EQ(list.size(), 2U);
}

TEST_F(AccessPointList, GoesOnBehindABssThatIsAskedForInVain)
{
    for (const char* name : {"a", "b", "c", "d"}) {
        add_bss(name, -40, true, {});
    }
    air.hanging = {"/bss/0", "/bss/2"};
    AccessPoints list;
    ASSERT_EQ(wpa_supplicant_get_access_points(list), 1);
    EXPECT_EQ(list.size(), 2U);
    EXPECT_EQ(air.asked, 4);
}

TEST_F(AccessPointList, EndsWhereWpaSupplicantHangs)
{
    for (const char* name : {"a", "b", "c", "d", "e"}) {
        add_bss(name, -40, true, {});
    }
    air.hanging = {"/bss/1", "/bss/2", "/bss/3", "/bss/4"};
    AccessPoints list;
    ASSERT_EQ(wpa_supplicant_get_access_points(list), 1);
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].ssid, "a");
    EXPECT_EQ(air.asked, 3);
}

TEST_F(AccessPointList, OfAHundredThousandNamesIsMadeInAMoment)
{
    // Compared with one another they would take minutes, and the test would run into its time limit.
    constexpr int kNames = 100'000;
    for (int i = 0; i < kNames; ++i) {
        add_bss("network number " + std::to_string(i), -50, true, {});
    }
    AccessPoints list;
    ASSERT_EQ(wpa_supplicant_get_access_points(list), 1);
    EXPECT_EQ(list.size(), static_cast<size_t>(kNames));
}

TEST_F(AccessPointList, IsAFailureWithoutABusForTheListOrForTheDetails)
{
    add_bss("cafe", -40, true, {});
    AccessPoints list;
    air.opensLeft = 0;
    EXPECT_EQ(wpa_supplicant_get_access_points(list), 0);
    air.opensLeft = 1;
    EXPECT_EQ(wpa_supplicant_get_access_points(list), 0);
    EXPECT_THAT(list, IsEmpty());
    EXPECT_THAT(
        captured_log().lines(),
        ElementsAre(LogLine{LOG_INFO, "[WPA] Get access points"},
                    LogLine{LOG_ERR, "wpa_supplicant_get_access_points: Failed to open system bus"},
                    LogLine{LOG_INFO, "[WPA] Get access points"},
                    LogLine{LOG_ERR, "wpa_supplicant_get_access_point_details: Failed to open system bus"}));
}

TEST_F(AccessPointList, IsASilentFailureWhenTheListCanNotBeRead)
{
    add_bss("cafe", -40, true, {});
    air.listed = -ENXIO;
    AccessPoints list;
    EXPECT_EQ(wpa_supplicant_get_access_points(list), 0);
    EXPECT_THAT(list, IsEmpty());
    EXPECT_THAT(captured_log().lines(), ElementsAre(LogLine{LOG_INFO, "[WPA] Get access points"}));
}

TEST_F(AccessPointList, IsASuccessWhenItIsEmpty)
{
    AccessPoints list;
    EXPECT_EQ(wpa_supplicant_get_access_points(list), 1);
    EXPECT_THAT(list, IsEmpty());
}

TEST_F(AccessPointList, RaisesWhatAValueOfAnotherTypeRaises)
{
    add_bss("cafe", -40, true, {});
    AccessPoints list;
    for (const char* name : {"SSID", "Signal", "Privacy", "RSN"}) {
        auto properties = air.properties["/bss/0"];
        air.properties["/bss/0"][name] = {"d", 0.5};
        EXPECT_THROW(wpa_supplicant_get_access_points(list), std::bad_any_cast) << name;
        air.properties["/bss/0"] = properties;
    }
}

// What a network is good for

TEST_F(AccessPointList, ANetworkIsSupportedWhenItIsOpenOrOffersWpaPsk)
{
    add_bss("open", -40, false, {});
    add_bss("psk", -40, true, {"wpa-eap", "wpa-psk"});
    add_bss("eap", -40, true, {"wpa-eap"});
    add_bss("wep", -40, true, {});
    add_bss("odd", -40, false, {"wpa-psk"});
    EXPECT_TRUE(wpa_supplicant_is_network_supported("open"));
    EXPECT_TRUE(wpa_supplicant_is_network_supported("psk"));
    EXPECT_FALSE(wpa_supplicant_is_network_supported("eap"));
    EXPECT_FALSE(wpa_supplicant_is_network_supported("wep"));
    EXPECT_TRUE(wpa_supplicant_is_network_supported("odd"));
    EXPECT_FALSE(wpa_supplicant_is_network_supported("ope"));
    EXPECT_FALSE(wpa_supplicant_is_network_supported(""));
}

TEST_F(AccessPointList, TheStrongestDecidesWhetherANetworkIsSupported)
{
    add_bss("cafe", -40, true, {"wpa-eap"});
    add_bss("cafe", -70, false, {});
    EXPECT_FALSE(wpa_supplicant_is_network_supported("cafe"));
}

TEST_F(AccessPointList, NoNetworkIsSupportedWhenNoneCanBeListed)
{
    EXPECT_FALSE(wpa_supplicant_is_network_supported("open"));
    add_bss("open", -40, false, {});
    air.listed = -ENXIO;
    EXPECT_FALSE(wpa_supplicant_is_network_supported("open"));
}

} // namespace
