#include "utils/dhcp_units.hpp"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include "support/captured_log.hpp"
#include "support/played_units.hpp"

namespace {

using testing::ElementsAre;
using testing_support::captured_log;
using testing_support::LogLine;
using testing_support::units;

struct Wrapper
{
    const char* name;
    int (*function)();
    const char* line;
    const char* unit;
    const char* job;
};

class DhcpUnits : public testing::TestWithParam<Wrapper>
{
protected:
    DhcpUnits()
    {
        units = {};
        // The line of the wrapper stands first, so it is there when a job is asked for.
        units.atJob = [] { EXPECT_EQ(captured_log().lines().size(), 1U); };
        captured_log().clear();
    }
};

TEST_P(DhcpUnits, WritesItsLineThenLoadsItsUnitThenRunsItsJob)
{
    EXPECT_EQ(GetParam().function(), 1);
    EXPECT_THAT(captured_log().lines(), ElementsAre(LogLine{LOG_INFO, GetParam().line}));
    EXPECT_THAT(units.calls, ElementsAre(std::string("load ") + GetParam().unit,
                                         std::string(GetParam().job) + " '/unit'"));
}

TEST_P(DhcpUnits, ReturnsTheResultOfTheJob)
{
    units.jobDone = 0;
    EXPECT_EQ(GetParam().function(), 0);
}

TEST_P(DhcpUnits, GoesOnWithAnEmptyPathAfterALookUpThatFailedWithNonzero)
{
    units.loadedPath = "";
    EXPECT_EQ(GetParam().function(), 1);
    EXPECT_THAT(units.calls,
                ElementsAre(std::string("load ") + GetParam().unit, std::string(GetParam().job) + " ''"));
}

TEST_P(DhcpUnits, RunsNoJobAfterALookUpOfZero)
{
    units.loaded = 0;
    EXPECT_EQ(GetParam().function(), 0);
    EXPECT_THAT(units.calls, ElementsAre(std::string("load ") + GetParam().unit));
    EXPECT_THAT(captured_log().lines(), ElementsAre(LogLine{LOG_INFO, GetParam().line}));
}

INSTANTIATE_TEST_SUITE_P(
    All, DhcpUnits,
    testing::Values(
        Wrapper{"ServerStart", dhcp_server_start, "Starting UDHCP daemon service", "udhcpd.service", "start"},
        Wrapper{"ServerRestart", dhcp_server_restart, "Re-Starting UDHCP daemon service", "udhcpd.service",
                "restart"},
        Wrapper{"ServerStop", dhcp_server_stop, "Stoping UDHCP daemon service", "udhcpd.service", "stop"},
        Wrapper{"ClientStart", dhcp_client_start, "Starting UDHCP client service", "udhcpc@wlan0.service",
                "start"},
        Wrapper{"ClientRestart", dhcp_client_restart, "Re-Starting UDHCP client service",
                "udhcpc@wlan0.service", "restart"},
        Wrapper{"ClientStop", dhcp_client_stop, "Stoping UDHCP client service", "udhcpc@wlan0.service",
                "stop"}),
    [](const auto& tested) { return tested.param.name; });

} // namespace
