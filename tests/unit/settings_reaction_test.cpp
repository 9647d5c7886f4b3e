// What a change of the stored settings by somebody else leads to: the control operations are replaced.

#include "core/event_reactions.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <any>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/service.hpp"
#include "core/wifi_control.hpp"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> calls;
int result = 0;

std::string written_through(WriteThrough writeThrough)
{
    return writeThrough == WriteThrough::On ? " (stored)" : "";
}

} // namespace

// In the place of the control operations

int set_wifi_state(uint32_t state)
{
    calls.push_back("state " + std::to_string(state));
    return result;
}

int set_wifi_mode(const std::string& mode, WriteThrough writeThrough)
{
    calls.push_back("mode " + mode + written_through(writeThrough));
    return result;
}

int set_wifi_frequency(const std::string& frequency, WriteThrough writeThrough)
{
    calls.push_back("frequency " + frequency + written_through(writeThrough));
    return result;
}

int set_wifi_ssid(const std::string& ssid, WriteThrough writeThrough)
{
    calls.push_back("SSID " + ssid + written_through(writeThrough));
    return result;
}

// In the place of the service, which none of this reaches

sd_bus* service_bus()
{
    return nullptr;
}

sd_event* service_event()
{
    return nullptr;
}

void post_to_main_loop(std::function<void()> work)
{
    work();
}

void emit_property_changed(const char* property)
{
    calls.push_back(std::string("announce ") + property);
}

void announce_access_point_initialised(bool)
{
    calls.emplace_back("announce the access point");
}

namespace {

class SettingsChanged : public testing::Test
{
protected:
    SettingsChanged()
    {
        calls.clear();
        result = 0;
    }
};

const std::string kLongName(33, 'x');

TEST_F(SettingsChanged, TakesEachKnownSettingInKeyOrderWithoutStoringIt)
{
    settings_changed({{"mode", {"s", std::string("Client")}},
                      {"frequency", {"s", std::string("5")}},
                      {"enabled", {"b", true}},
                      {"deviceName", {"s", std::string("Attic")}}});
    EXPECT_THAT(calls, ElementsAre("SSID Attic", "state 1", "frequency 5", "mode Client"));
}

TEST_F(SettingsChanged, PassesValuesOnAsTheyAre)
{
    settings_changed({{"enabled", {"b", false}},
                      {"deviceName", {"s", kLongName}},
                      {"frequency", {"s", std::string()}},
                      {"mode", {"s", std::string("host")}}});
    EXPECT_THAT(calls, ElementsAre("SSID " + kLongName, "state 0", "frequency ", "mode host"));
}

TEST_F(SettingsChanged, IgnoresKnownNamesOfAnotherType)
{
    settings_changed({{"enabled", {"s", std::string("true")}},
                      {"mode", {"b", true}},
                      {"frequency", {"d", 2.4}},
                      {"deviceName", {"as", std::vector<std::string>{"Attic"}}}});
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(SettingsChanged, IgnoresOtherNamesAndNoNames)
{
    settings_changed({});
    settings_changed(
        {{"Enabled", {"b", true}}, {"", {"s", std::string("Client")}}, {"modes", {"s", std::string()}}});
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(SettingsChanged, GoesOnAfterAnOperationThatFails)
{
    result = -1;
    settings_changed({{"frequency", {"s", std::string("6")}}, {"mode", {"s", std::string("Host")}}});
    EXPECT_THAT(calls, ElementsAre("frequency 6", "mode Host"));
}

TEST_F(SettingsChanged, AValueThatIsNotOfTheTypeItSaysIsNotCaught)
{
    EXPECT_THROW(settings_changed({{"enabled", {"b", std::string("true")}}}), std::bad_any_cast);
    EXPECT_THROW(settings_changed({{"mode", {"s", true}}}), std::bad_any_cast);
    EXPECT_THAT(calls, IsEmpty());
}

} // namespace
