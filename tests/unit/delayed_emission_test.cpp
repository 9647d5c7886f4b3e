#include "core/delayed_emission.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "core/service.hpp"
#include "support/event_loop.hpp"

namespace {

using testing::ElementsAre;
using testing_support::EventLoop;

EventLoop* loop = nullptr;
std::vector<std::string> emitted;

} // namespace

sd_event* service_event()
{
    return loop->get();
}

void emit_property_changed(const char* property)
{
    emitted.emplace_back(property);
}

namespace {

class DelayedEmission : public testing::Test
{
protected:
    void SetUp() override
    {
        loop = &ownLoop;
        emitted.clear();
    }

    bool emits(size_t count) const
    {
        return ownLoop.run_until([count] { return emitted.size() >= count; });
    }

    EventLoop ownLoop;
};

TEST_F(DelayedEmission, ComesNotBeforeItsTime)
{
    const auto begin = std::chrono::steady_clock::now();
    emit_properties_later({"SSID"}, 1);
    ASSERT_TRUE(emits(1));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_THAT(emitted, ElementsAre("SSID"));
}

TEST_F(DelayedEmission, AnnouncesAllItsPropertiesInOrderAndOnce)
{
    emit_properties_later({"SSID", "IPAddress", "SSID"}, 0);
    ASSERT_TRUE(emits(3));
    emit_properties_later({"Mode"}, 0); // would come after a second round
    ASSERT_TRUE(emits(4));
    EXPECT_THAT(emitted, ElementsAre("SSID", "IPAddress", "SSID", "Mode"));
}

TEST_F(DelayedEmission, IsReplacedByANewerOne)
{
    emit_properties_later({"Mode"}, 0);
    emit_properties_later({"SSID"}, 1);
    ASSERT_TRUE(emits(1));
    EXPECT_THAT(emitted, ElementsAre("SSID"));
}

TEST_F(DelayedEmission, KeepsItsOwnCopyOfTheNames)
{
    {
        std::vector<const char*> names = {"SSID"};
        emit_properties_later(names, 0);
        names.front() = "Mode";
    }
    ASSERT_TRUE(emits(1));
    EXPECT_THAT(emitted, ElementsAre("SSID"));
}

} // namespace
