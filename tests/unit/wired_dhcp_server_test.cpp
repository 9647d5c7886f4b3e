#include "core/wired_dhcp_server.hpp"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include "support/captured_log.hpp"
#include "utils/interface_queries.hpp"
#include "utils/systemd_units.hpp"

namespace {

using testing::ElementsAre;
using testing_support::captured_log;
using testing_support::LogLine;

/** The machine around the reaction: what it was asked to do, and what it answers. */
struct Machine
{
    bool nfsRoot = false;
    bool enabled = true;
    bool disabled = true;
    int loaded = 1;
    int jobDone = 1;
    std::vector<std::string> calls;
};

Machine machine;

} // namespace

bool utils_is_nfs_root()
{
    return machine.nfsRoot;
}

bool utils_enable_service(const std::string& unit)
{
    machine.calls.push_back("enable " + unit);
    return machine.enabled;
}

bool utils_disable_service(const std::string& unit)
{
    machine.calls.push_back("disable " + unit);
    return machine.disabled;
}

int utils_load_service_unit(const std::string& name, std::string& path)
{
    machine.calls.push_back("load " + name);
    path = "/unit";
    return machine.loaded;
}

int utils_start_service(const std::string& path)
{
    machine.calls.push_back("start " + path);
    return machine.jobDone;
}

int utils_stop_service(const std::string& path)
{
    machine.calls.push_back("stop " + path);
    return machine.jobDone;
}

namespace {

class WiredDhcpServer : public testing::Test
{
protected:
    WiredDhcpServer()
    {
        machine = {};
        captured_log().clear();
    }

    static void address_added() { wired_dhcp_server_address_changed("eth0", "10.0.0.1", true); }
    static void address_removed() { wired_dhcp_server_address_changed("eth0", "10.0.0.1", false); }

    static std::vector<LogLine> log() { return captured_log().lines(); }

    static void expect_stopped_and_disabled()
    {
        EXPECT_THAT(machine.calls,
                    ElementsAre("load udhcpd_eth0.service", "stop /unit", "disable udhcpd_eth0.service"));
        EXPECT_THAT(log(),
                    ElementsAre(LogLine{LOG_INFO, "Successfully stopped and disabled udhcpd_eth0.service"}));
    }
};

TEST_F(WiredDhcpServer, IsEnabledAndStartedForAnAddressAddedOnTheWire)
{
    address_added();
    EXPECT_THAT(machine.calls, ElementsAre("enable /etc/korrin/udhcpd_eth0.service",
                                           "load udhcpd_eth0.service", "start /unit"));
    EXPECT_THAT(log(),
                ElementsAre(LogLine{LOG_INFO, "Successfully enabled and started udhcpd_eth0.service"}));
}

TEST_F(WiredDhcpServer, IsStoppedAndDisabledForAnAddressRemovedFromTheWire)
{
    address_removed();
    expect_stopped_and_disabled();
}

TEST_F(WiredDhcpServer, IsStoppedAndDisabledForAnAddressAddedElsewhere)
{
    wired_dhcp_server_address_changed("wlan0", "10.0.0.1", true);
    expect_stopped_and_disabled();
}

TEST_F(WiredDhcpServer, IsStoppedAndDisabledForAnAliasOfTheWire)
{
    wired_dhcp_server_address_changed("eth0:1", "10.0.0.1", true);
    expect_stopped_and_disabled();
}

TEST_F(WiredDhcpServer, IsStoppedAndDisabledForEveryEventOnANetworkRoot)
{
    machine.nfsRoot = true;
    address_added();
    expect_stopped_and_disabled();
}

TEST_F(WiredDhcpServer, IsNeitherLoadedNorStartedWhenItCanNotBeEnabled)
{
    machine.enabled = false;
    address_added();
    EXPECT_THAT(machine.calls, ElementsAre("enable /etc/korrin/udhcpd_eth0.service"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, "Failed to enable udhcpd_eth0.service"}));
}

TEST_F(WiredDhcpServer, IsNotStartedWhenTheLookUpIsZero)
{
    machine.loaded = 0;
    address_added();
    EXPECT_THAT(machine.calls,
                ElementsAre("enable /etc/korrin/udhcpd_eth0.service", "load udhcpd_eth0.service"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, "Failed to load udhcpd_eth0.service"}));
}

TEST_F(WiredDhcpServer, HasNotStartedWhenTheJobIsZero)
{
    machine.jobDone = 0;
    address_added();
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, "Failed to start udhcpd_eth0.service"}));
}

TEST_F(WiredDhcpServer, IsNeitherStoppedNorDisabledWhenTheLookUpIsZero)
{
    machine.loaded = 0;
    address_removed();
    EXPECT_THAT(machine.calls, ElementsAre("load udhcpd_eth0.service"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, "Failed to load udhcpd_eth0.service"}));
}

TEST_F(WiredDhcpServer, IsNotDisabledWhenTheStopJobIsZero)
{
    machine.jobDone = 0;
    address_removed();
    EXPECT_THAT(machine.calls, ElementsAre("load udhcpd_eth0.service", "stop /unit"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, "Failed to stop udhcpd_eth0.service"}));
}

TEST_F(WiredDhcpServer, IsStoppedAllTheSameWhenItCanNotBeDisabled)
{
    machine.disabled = false;
    address_removed();
    EXPECT_THAT(machine.calls,
                ElementsAre("load udhcpd_eth0.service", "stop /unit", "disable udhcpd_eth0.service"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, "Failed to disable udhcpd_eth0.service"}));
}

} // namespace
