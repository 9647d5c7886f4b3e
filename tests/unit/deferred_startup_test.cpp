#include "core/deferred_startup.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/wifi_config.hpp"
#include "core/event_reactions.hpp"
#include "core/service.hpp"
#include "listeners/kernel_netlink_listener.hpp"
#include "radio/wifi_controller.hpp"
#include "support/event_loop.hpp"

// When the start-up comes. What it does is replaced here.

namespace {

std::vector<std::string> done;

} // namespace

bool read_wifi_config(WifiConfig&)
{
    done.emplace_back("start-up");
    return true;
}

void set_safe_wifi_config(WifiConfig&)
{
}

void dump_wifi_config(const WifiConfig&)
{
}

int wifi_set_enabled(bool)
{
    return 1;
}

int wifi_get_enabled()
{
    return 0;
}

int wifi_mode_switch(WifiMode)
{
    return 1;
}

void emit_property_changed(const char*)
{
}

void connect_event_reactions()
{
}

TEST(DeferredStartup, ComesOnceAndBeforeWhatTheLoopFoundEarlier)
{
    const testing_support::EventLoop loop;
    sd_event_add_defer(
        loop.get(), nullptr,
        [](sd_event_source*, void*) {
            done.emplace_back("something else");
            return 0;
        },
        nullptr);
    defer_startup(loop.get());
    while (sd_event_run(loop.get(), 0) > 0) {
    }
    kernel_address_listener()->Stop();
    EXPECT_THAT(done, testing::ElementsAre("start-up", "something else"));
}
