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

TEST_F(EventReactions, completed_announces_the_state_now_and_the_ssid_in_two_seconds)
{
    client_state_changed("completed", "cafe");
    EXPECT_THAT(done, ElementsAre("emit WiFiClientState", "in 2 s: SSID"));
}

TEST_F(EventReactions, other_states_announce_nothing_later)
{
    for (const char* state : {"disconnected", "failed", "", "Completed", "completed "}) {
        done.clear();
        client_state_changed(state, "cafe");
        EXPECT_THAT(done, ElementsAre("emit WiFiClientState")) << state;
    }
}

TEST_F(EventReactions, only_addresses_of_the_wireless_interface_are_announced)
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
