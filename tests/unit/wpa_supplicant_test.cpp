#include "radio/wpa_supplicant.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <syslog.h>

#include "support/captured_log.hpp"
#include "support/played_units.hpp"
#include "support/private_bus.hpp"

// The unit's wrappers over replaced unit jobs, and the result conventions of the calls.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::BusRole;
using testing_support::captured_log;
using testing_support::LogLine;
using testing_support::PrivateBus;
using testing_support::units;

constexpr const char* kUnit = "wpa_supplicant-nl80211@wlan0.service";

/** At the time of the last job. */
std::string networkAtJob;

/** What sd-bus answers in place of a call without a reply to read. */
int callResult = 1;

/** Whether AddNetwork can be made into a message. */
bool creatable = true;

void note_network()
{
    networkAtJob.clear();
    wpa_supplicant_get_current_network(networkAtJob);
}

} // namespace

extern "C" {

int sd_bus_call_method(sd_bus*, const char*, const char*, const char*, const char*, sd_bus_error*,
                       sd_bus_message**, const char*, ...)
{
    return callResult;
}

int sd_bus_message_new_method_call(sd_bus* bus, sd_bus_message** message, const char* destination,
                                   const char* path, const char* interface, const char* member)
{
    using Function = decltype(sd_bus_message_new_method_call);
    static auto* const kOriginal =
        reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "sd_bus_message_new_method_call"));
    // Opening a bus makes messages, too.
    const bool allowed = creatable || std::string(member) != "AddNetwork";
    return allowed ? kOriginal(bus, message, destination, path, interface, member) : -ENOMEM;
}
}

namespace {

class WpaSupplicant : public testing::Test
{
protected:
    void SetUp() override
    {
        units = {};
        callResult = 1;
        creatable = true;
        wpa_supplicant_stop();
        units = {};
        units.atJob = note_network;
        captured_log().clear();
    }

    static std::string current_network()
    {
        std::string path = "untouched";
        return wpa_supplicant_get_current_network(path) ? path : "none, " + path;
    }

    PrivateBus bus{BusRole::System};
};

TEST_F(WpaSupplicant, EachWrapperLoadsTheUnitAndAsksForItsJob)
{
    EXPECT_EQ(wpa_supplicant_start_service(), 1);
    EXPECT_EQ(wpa_supplicant_restart_service(), 1);
    EXPECT_EQ(wpa_supplicant_stop_service(), 1);
    const std::string load = std::string("load ") + kUnit;
    EXPECT_THAT(units.calls,
                ElementsAre(load, "start '/unit'", load, "restart '/unit'", load, "stop '/unit'"));
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_INFO, "Starting WPA Supplicant daemon service"},
                            LogLine{LOG_INFO, "Re-Starting WPA Supplicant daemon service"},
                            LogLine{LOG_INFO, "Stoping WPA Supplicant daemon service"}));
}

TEST_F(WpaSupplicant, TheResultOfTheJobIsTheResult)
{
    units.jobDone = -5;
    EXPECT_EQ(wpa_supplicant_start(), -5);
    EXPECT_EQ(wpa_supplicant_stop(), -5);
    units.jobDone = 0;
    EXPECT_EQ(wpa_supplicant_start(), 0);
    EXPECT_EQ(wpa_supplicant_stop(), 0);
}

TEST_F(WpaSupplicant, AUnitLoadedWithTheResult0GetsNoJob)
{
    units.loaded = 0;
    EXPECT_EQ(wpa_supplicant_start(), 0);
    EXPECT_EQ(wpa_supplicant_restart_service(), 0);
    EXPECT_EQ(wpa_supplicant_stop(), 0);
    EXPECT_THAT(units.calls, testing::Each(std::string("load ") + kUnit));
}

TEST_F(WpaSupplicant, StartAndStopForgetTheNetworkBeforeTheJob)
{
    wpa_supplicant_select_network("/network");
    wpa_supplicant_stop();
    EXPECT_EQ(networkAtJob, "");
    wpa_supplicant_select_network("/network");
    wpa_supplicant_start();
    EXPECT_EQ(networkAtJob, "");
    wpa_supplicant_select_network("/network");
    wpa_supplicant_restart_service();
    EXPECT_EQ(networkAtJob, "/network") << "a mere restart of the unit keeps it";
}

TEST_F(WpaSupplicant, ScanFailsOnlyWithTheResult0)
{
    EXPECT_NE(wpa_supplicant_scan(), 0);
    callResult = -ENXIO;
    EXPECT_NE(wpa_supplicant_scan(), 0);
    captured_log().clear();
    callResult = 0;
    EXPECT_EQ(wpa_supplicant_scan(), 0);
    EXPECT_THAT(captured_log().lines(), ElementsAre(LogLine{LOG_INFO, "[WPA] Scan APs"}));
    bus.stop();
    EXPECT_NE(wpa_supplicant_scan(), 0);
    EXPECT_EQ(captured_log().lines().back(),
              (LogLine{LOG_ERR, "[WPA] wpa_supplicant_scan: Failed to open system bus"}));
}

TEST_F(WpaSupplicant, TheSelectedNetworkIsCurrentEvenWhenSelectingItFails)
{
    EXPECT_EQ(current_network(), "none, untouched");
    EXPECT_TRUE(wpa_supplicant_select_network("/first"));
    EXPECT_EQ(current_network(), "/first");
    callResult = -ENXIO;
    EXPECT_FALSE(wpa_supplicant_select_network("/second"));
    EXPECT_EQ(current_network(), "/second");
    callResult = 0;
    EXPECT_TRUE(wpa_supplicant_select_network("/third"));
    bus.stop();
    EXPECT_FALSE(wpa_supplicant_select_network("/fourth"));
    EXPECT_EQ(current_network(), "/fourth");
}

TEST_F(WpaSupplicant, RemovingAndLeavingForgetTheNetworkUnlessThereIsNoBus)
{
    for (const int result : {1, 0, -ENXIO}) {
        callResult = result;
        wpa_supplicant_select_network("/network");
        EXPECT_EQ(wpa_supplicant_remove_network("/another"), result >= 0);
        EXPECT_EQ(current_network(), "none, untouched");
        wpa_supplicant_select_network("/network");
        EXPECT_EQ(wpa_supplicant_disconnect_network(), result >= 0);
        EXPECT_EQ(current_network(), "none, untouched");
    }
    wpa_supplicant_select_network("/network");
    bus.stop();
    EXPECT_FALSE(wpa_supplicant_remove_network("/network"));
    EXPECT_FALSE(wpa_supplicant_disconnect_network());
    EXPECT_EQ(current_network(), "/network");
}

TEST_F(WpaSupplicant, ANetworkThatCanNotBeDescribedYieldsNoPathAndNoZero)
{
    for (const std::string passphrase : {"secret12", ""}) {
        captured_log().clear();
        std::string path = "untouched";
        EXPECT_NE(wpa_supplicant_add_network("\xff", passphrase, path), 0);
        EXPECT_EQ(path, "untouched");
        EXPECT_THAT(
            captured_log().lines(),
            ElementsAre(
                LogLine{LOG_INFO, "[WPA] Add network '\xff', passphrase '" + passphrase + "'"},
                LogLine{LOG_ERR, "[WPA] wpa_supplicant_add_network: Failed to build request message"}));
    }
}

TEST_F(WpaSupplicant, ACallThatCanNotBeMadeYieldsNoPathAndNoZero)
{
    creatable = false;
    std::string path = "untouched";
    EXPECT_NE(wpa_supplicant_add_network("cafe", "", path), 0);
    EXPECT_EQ(path, "untouched");
    EXPECT_THAT(
        captured_log().lines(),
        ElementsAre(LogLine{LOG_INFO, "[WPA] Add network 'cafe', passphrase ''"},
                    LogLine{LOG_ERR, "[WPA] wpa_supplicant_add_network: Failed to init new dbus method"}));
}

} // namespace
