#include "utils/shell_commands.hpp"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include "support/captured_log.hpp"
#include "utils/shell_process.hpp"

namespace {

using testing::ElementsAre;
using testing_support::captured_log;
using testing_support::LogLine;

std::vector<std::string> commands;
std::vector<int> statuses;

} // namespace

int shell_run(const std::string& command)
{
    commands.push_back(command);
    const int status = statuses.empty() ? 0 : statuses.front();
    if (!statuses.empty()) {
        statuses.erase(statuses.begin());
    }
    return status;
}

namespace {

class ShellCommands : public testing::Test
{
protected:
    ShellCommands()
    {
        commands.clear();
        statuses.clear();
        captured_log().clear();
    }

    static std::vector<LogLine> log() { return captured_log().lines(); }
};

LogLine trying(const std::string& command)
{
    return {LOG_INFO, "utils_do_system_call: trying \"" + command + "\"..."};
}

LogLine failed(int status)
{
    return {LOG_ERR, "utils_do_system_call: system call failed: " + std::to_string(status)};
}

LogLine retrying(const std::string& command)
{
    return {LOG_ERR, "utils_do_system_call: retrying \"" + command + "\"..."};
}

TEST_F(ShellCommands, RunsACommandThatSucceedsOnce)
{
    EXPECT_EQ(utils_do_system_call("true"), 0);
    EXPECT_THAT(commands, ElementsAre("true"));
    EXPECT_THAT(log(), ElementsAre(trying("true")));
}

TEST_F(ShellCommands, GivesTheStatusOfTheLastOfThreeFailedRuns)
{
    statuses = {256, -1, 9};
    EXPECT_EQ(utils_do_system_call("x"), 9);
    EXPECT_THAT(commands, ElementsAre("x", "x", "x"));
    EXPECT_THAT(log(), ElementsAre(trying("x"), failed(256), retrying("x"), failed(-1), retrying("x"),
                                   failed(9), retrying("x")));
}

TEST_F(ShellCommands, SucceedsWithTheThirdRun)
{
    statuses = {256, 256};
    EXPECT_EQ(utils_do_system_call("x"), 0);
    EXPECT_THAT(log(), ElementsAre(trying("x"), failed(256), retrying("x"), failed(256), retrying("x")));
}

TEST_F(ShellCommands, DoesNotMindThatThereIsNoDhcpClientToKill)
{
    statuses = {256};
    EXPECT_EQ(utils_do_system_call("killall udhcpc"), 256);
    EXPECT_THAT(commands, ElementsAre("killall udhcpc"));
    EXPECT_THAT(log(), ElementsAre(trying("killall udhcpc")));
}

TEST_F(ShellCommands, MindsEveryOtherFailureOfKillall)
{
    for (const auto& [command, status] :
         {std::pair{"killall udhcpc", 512}, {"killall udhcpd", 256}, {"killall udhcpc ", 256}}) {
        captured_log().clear();
        statuses = {status, status, status};
        EXPECT_EQ(utils_do_system_call(command), status);
        EXPECT_EQ(log().size(), 7U) << command;
    }
}

TEST_F(ShellCommands, ForgivesKillallInALaterRun)
{
    statuses = {512, 256};
    EXPECT_EQ(utils_do_system_call("killall udhcpc"), 256);
    EXPECT_THAT(log(), ElementsAre(trying("killall udhcpc"), failed(512), retrying("killall udhcpc")));
}

TEST_F(ShellCommands, FlushesTheAddress)
{
    EXPECT_TRUE(utils_flush_ip());
    EXPECT_THAT(commands, ElementsAre("ip addr flush dev wlan0"));
    EXPECT_THAT(log(),
                ElementsAre(LogLine{LOG_INFO, "[Utils] Flush IP addr of wlan0"},
                            trying("ip addr flush dev wlan0"),
                            LogLine{LOG_INFO, "utils_flush_ip: wlan0 ip address deleted successfully"}));
}

TEST_F(ShellCommands, SaysThatTheAddressCanNotBeFlushed)
{
    statuses = {256, 256, 512};
    EXPECT_FALSE(utils_flush_ip());
    EXPECT_EQ(log().back(), (LogLine{LOG_ERR, "utils_flush_ip: Unable to flush wlan0 address, error: 512"}));
    EXPECT_EQ(log().size(), 9U);
}

TEST_F(ShellCommands, AddsAnAddressAsItIs)
{
    EXPECT_TRUE(utils_add_ip("192.168.8.1/24 brd +"));
    EXPECT_THAT(commands, ElementsAre("ip addr add 192.168.8.1/24 brd + dev wlan0"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_INFO, "[Utils] Add IP addr of wlan0: 192.168.8.1/24 brd +"},
                                   trying("ip addr add 192.168.8.1/24 brd + dev wlan0"),
                                   LogLine{LOG_INFO, "utils_add_ip: wlan0 ip address added successfully"}));
}

TEST_F(ShellCommands, SaysThatTheAddressCanNotBeAdded)
{
    statuses = {512, 512, 512};
    EXPECT_FALSE(utils_add_ip("10.0.0.1/8"));
    EXPECT_EQ(log().back(), (LogLine{LOG_ERR, "utils_add_ip: Unable to add wlan0 address, error: 512"}));
    EXPECT_EQ(log().size(), 9U);
}

} // namespace
