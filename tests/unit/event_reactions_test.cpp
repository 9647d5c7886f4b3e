#include "core/event_reactions.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <syslog.h>
#include <time.h>

#include "core/delayed_emission.hpp"
#include "core/service.hpp"
#include "listeners/hostapd_socket_listener.hpp"
#include "support/captured_log.hpp"
#include "support/event_loop.hpp"
#include "support/private_bus.hpp"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::BusRole;
using testing_support::captured_log;
using testing_support::EventLoop;
using testing_support::LogLine;
using testing_support::PrivateBus;

std::vector<std::string> done;

const EventLoop* loop = nullptr;

} // namespace

void emit_property_changed(const char* property)
{
    done.push_back(std::string("emit ") + property);
}

void announce_access_point_initialised(bool ready)
{
    done.push_back(std::string("access point ") + (ready ? "ready" : "not ready"));
}

void emit_properties_later(std::vector<const char*> properties, int32_t delaySec)
{
    std::string text = "in " + std::to_string(delaySec) + " s:";
    for (const char* property : properties) {
        text += std::string(" ") + property;
    }
    done.push_back(text);
}

sd_bus* service_bus()
{
    return nullptr;
}

sd_event* service_event()
{
    return loop->get();
}

void post_to_main_loop(std::function<void()> work)
{
    work();
}

/** Between the looks for hostapd's socket, which does not come. */
extern "C" int nanosleep(const timespec*, timespec*)
{
    return 0;
}

namespace {

class EventReactions : public testing::Test
{
protected:
    void SetUp() override
    {
        done.clear();
        captured_log().clear();
    }
};

TEST_F(EventReactions, CompletedAnnouncesTheStateNowAndTheSsidInTwoSeconds)
{
    client_state_changed("completed", "cafe");
    EXPECT_THAT(done, ElementsAre("emit WiFiClientState", "in 2 s: SSID"));
}

TEST_F(EventReactions, OtherStatesAnnounceNothingLater)
{
    for (const char* state : {"disconnected", "failed", "", "Completed", "completed "}) {
        done.clear();
        client_state_changed(state, "cafe");
        EXPECT_THAT(done, ElementsAre("emit WiFiClientState")) << state;
    }
}

TEST_F(EventReactions, WhatHostapdSaysOfTheAccessPointIsAnnouncedWithTheValueOfTheEvent)
{
    wifi_host_ap_initialised(true);
    wifi_host_ap_initialised(false);
    wifi_host_ap_initialised(true);
    EXPECT_THAT(done, ElementsAre("access point ready", "access point not ready", "access point ready"));
    const LogLine ready{LOG_INFO, "wifi_host_ap_initialised: AP State: READY"};
    const LogLine notReady{LOG_INFO, "wifi_host_ap_initialised: AP State: NOT READY"};
    EXPECT_THAT(captured_log().lines(), ElementsAre(ready, notReady, ready));
}

TEST_F(EventReactions, StationsThatComeAndGoAreLoggedAndTheirNumberAnnounced)
{
    wifi_host_station_connected("02:00:00:00:30:01");
    wifi_host_station_disconnected("02:00:00:00:30:01");
    EXPECT_THAT(done, ElementsAre("emit WiFiConnectedClients", "emit WiFiConnectedClients"));
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_INFO, "wifi_host_station_connected: 02:00:00:00:30:01"},
                            LogLine{LOG_INFO, "wifi_host_station_disconnected: 02:00:00:00:30:01"}));
}

TEST_F(EventReactions, OnlyAddressesOfTheWirelessInterfaceAreAnnounced)
{
    for (const char* interface : {"eth0", "wlan0:1", "wlan1", "wlan", ""}) {
        address_changed(interface, "10.0.0.5", true);
    }
    EXPECT_THAT(done, IsEmpty());
    address_changed("wlan0", "10.0.0.5", true);
    address_changed("wlan0", "10.0.0.5", false);
    EXPECT_THAT(done, ElementsAre("emit IPAddress", "emit IPAddress"));
}

TEST_F(EventReactions, TwoEndsOfHostapdThatComeTogetherRestartItsListenerOnce)
{
    const EventLoop ownLoop;
    loop = &ownLoop;
    const PrivateBus withoutSettings(BusRole::User);
    wifi_host_terminated();
    wifi_host_terminated();
    captured_log().clear();
    while (sd_event_run(ownLoop.get(), 0) > 0) {
    }
    hostapd_listener()->Stop();
    const LogLine restarting{LOG_INFO, "restart_wifi_host_listener_callback: Restarting..."};
    EXPECT_EQ(std::ranges::count(captured_log().lines(), restarting), 1);
}

} // namespace
