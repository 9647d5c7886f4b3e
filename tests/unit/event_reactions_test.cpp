#include "core/event_reactions.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "core/delayed_emission.hpp"
#include "core/service.hpp"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> done;

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
    return nullptr;
}

void post_to_main_loop(std::function<void()>)
{
    done.emplace_back("post");
}

namespace {

class EventReactions : public testing::Test
{
protected:
    void SetUp() override { done.clear(); }
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

} // namespace
