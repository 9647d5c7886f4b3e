#include "core/wired_dhcp_server.hpp"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include "support/captured_log.hpp"
#include "support/played_units.hpp"
#include "utils/interface_queries.hpp"

namespace {

using testing::ElementsAre;
using testing_support::captured_log;
using testing_support::LogLine;
using testing_support::units;

bool nfsRoot = false;

} // namespace

bool utils_is_nfs_root()
{
    return nfsRoot;
}

namespace {

class WiredDhcpServer : public testing::Test
{
protected:
    WiredDhcpServer()
    {
        units = {};
        nfsRoot = false;
        captured_log().clear();
    }

    static void address_added() { wired_dhcp_server_address_changed("eth0", "10.0.0.1", true); }
    static void address_removed() { wired_dhcp_server_address_changed("eth0", "10.0.0.1", false); }

    static std::vector<LogLine> log() { return captured_log().lines(); }

    static void expect_stopped_and_disabled()
    {
        EXPECT_THAT(units.calls,
                    ElementsAre("load udhcpd_eth0.service", "stop '/unit'", "disable udhcpd_eth0.service"));
        EXPECT_THAT(log(),
                    ElementsAre(LogLine{LOG_INFO, "Successfully stopped and disabled udhcpd_eth0.service"}));
    }
};

TEST_F(WiredDhcpServer, IsEnabledAndStartedForAnAddressAddedOnTheWire)
{
    address_added();
    EXPECT_THAT(units.calls, ElementsAre("enable /etc/korrin/udhcpd_eth0.service", "load udhcpd_eth0.service",
                                         "start '/unit'"));
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
    nfsRoot = true;
    address_added();
    expect_stopped_and_disabled();
}

TEST_F(WiredDhcpServer, IsNeitherLoadedNorStartedWhenItCanNotBeEnabled)
{
    units.enabled = false;
    address_added();
    EXPECT_THAT(units.calls, ElementsAre("enable /etc/korrin/udhcpd_eth0.service"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, "Failed to enable udhcpd_eth0.service"}));
}

TEST_F(WiredDhcpServer, IsNotStartedWhenTheLookUpIsZero)
{
    units.loaded = 0;
    address_added();
    EXPECT_THAT(units.calls,
                ElementsAre("enable /etc/korrin/udhcpd_eth0.service", "load udhcpd_eth0.service"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, "Failed to load udhcpd_eth0.service"}));
}

TEST_F(WiredDhcpServer, HasNotStartedWhenTheJobIsZero)
{
    units.jobDone = 0;
    address_added();
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, "Failed to start udhcpd_eth0.service"}));
}

TEST_F(WiredDhcpServer, IsNeitherStoppedNorDisabledWhenTheLookUpIsZero)
{
    units.loaded = 0;
    address_removed();
    EXPECT_THAT(units.calls, ElementsAre("load udhcpd_eth0.service"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, "Failed to load udhcpd_eth0.service"}));
}

TEST_F(WiredDhcpServer, IsNotDisabledWhenTheStopJobIsZero)
{
    units.jobDone = 0;
    address_removed();
    EXPECT_THAT(units.calls, ElementsAre("load udhcpd_eth0.service", "stop '/unit'"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, "Failed to stop udhcpd_eth0.service"}));
}

TEST_F(WiredDhcpServer, IsStoppedAllTheSameWhenItCanNotBeDisabled)
{
    units.disabled = false;
    address_removed();
    EXPECT_THAT(units.calls,
                ElementsAre("load udhcpd_eth0.service", "stop '/unit'", "disable udhcpd_eth0.service"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, "Failed to disable udhcpd_eth0.service"}));
}

} // namespace
