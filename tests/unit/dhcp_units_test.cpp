#include "utils/dhcp_units.hpp"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include "support/captured_log.hpp"
#include "utils/systemd_units.hpp"

namespace {

using testing::ElementsAre;
using testing_support::captured_log;
using testing_support::LogLine;

/** What the unit control was asked to do, and what it answers. */
struct UnitControl
{
    int loadResult = 1;
    int jobResult = 1;
    std::string loadedPath = "/unit";
    std::vector<std::string> calls;
};

UnitControl control;

int job(const char* name, const std::string& path)
{
    // The line of the wrapper stands first, so it is there by now.
    EXPECT_EQ(captured_log().lines().size(), 1U);
    control.calls.push_back(std::string(name) + " '" + path + "'");
    return control.jobResult;
}

} // namespace

int utils_load_service_unit(const std::string& name, std::string& path)
{
    control.calls.push_back("load " + name);
    path = control.loadedPath;
    return control.loadResult;
}

int utils_start_service(const std::string& path)
{
    return job("start", path);
}

int utils_restart_service(const std::string& path)
{
    return job("restart", path);
}

int utils_stop_service(const std::string& path)
{
    return job("stop", path);
}

namespace {

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
        control = {};
        captured_log().clear();
    }
};

TEST_P(DhcpUnits, WritesItsLineThenLoadsItsUnitThenRunsItsJob)
{
    EXPECT_EQ(GetParam().function(), 1);
    EXPECT_THAT(captured_log().lines(), ElementsAre(LogLine{LOG_INFO, GetParam().line}));
    EXPECT_THAT(control.calls, ElementsAre(std::string("load ") + GetParam().unit,
                                           std::string(GetParam().job) + " '/unit'"));
}

TEST_P(DhcpUnits, ReturnsTheResultOfTheJob)
{
    control.jobResult = 0;
    EXPECT_EQ(GetParam().function(), 0);
}

TEST_P(DhcpUnits, GoesOnWithAnEmptyPathAfterALookUpThatFailedWithNonzero)
{
    control.loadedPath = "";
    EXPECT_EQ(GetParam().function(), 1);
    EXPECT_THAT(control.calls,
                ElementsAre(std::string("load ") + GetParam().unit, std::string(GetParam().job) + " ''"));
}

TEST_P(DhcpUnits, RunsNoJobAfterALookUpOfZero)
{
    control.loadResult = 0;
    EXPECT_EQ(GetParam().function(), 0);
    EXPECT_THAT(control.calls, ElementsAre(std::string("load ") + GetParam().unit));
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
