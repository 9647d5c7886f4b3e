#include "radio/wifi_controller.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include <syslog.h>
#include <unistd.h>

#include "radio/hostapd.hpp"
#include "radio/wpa_supplicant.hpp"
#include "support/captured_log.hpp"
#include "utils/dhcp_units.hpp"
#include "utils/shell_commands.hpp"
#include "utils/shell_process.hpp"

// The controller decides order and messages; everything it calls is replaced here by functions that note the
// call in the log, so that calls and messages stand in one order, and return what the test says.

namespace {

using testing::ElementsAreArray;
using testing_support::captured_log;
using testing_support::error;
using testing_support::line;
using testing_support::LogLine;
using testing_support::warning;

/** Priority under which calls stand in the log. */
constexpr int kCall = -1;

/** What the replaced functions return: 1 (a shell command: 0), unless the test says otherwise. */
std::map<std::string, int> results;

int called(const std::string& name, int otherwise)
{
    const auto found = results.find(name);
    const int result = found != results.end() ? found->second : otherwise;
    captured_log().note(kCall, name);
    return result;
}

/** Output of the next pipe; none can be opened when there is no text. */
struct
{
    bool opens = true;
    std::string output;
    std::string command;
    size_t limit = 0;
} pipeState;

const LogLine kSeparator = {LOG_INFO, "--------------------------------------------"};

/** The three lines that begin a sequence. */
std::vector<LogLine> heading(const std::string& text)
{
    return {kSeparator, {LOG_INFO, text}, kSeparator};
}

std::vector<LogLine> operator+(std::vector<LogLine> lines, const LogLine& next)
{
    lines.push_back(next);
    return lines;
}

LogLine call(const std::string& name)
{
    return {kCall, name};
}

const LogLine kFlushFailed = {LOG_WARNING, "[WiFi] Failed to flush IP, interface might have inavlid IP"};

class WifiController : public testing::Test
{
protected:
    void SetUp() override
    {
        results.clear();
        pipeState = {};
        captured_log().clear();
    }

    static void expect_log(const std::vector<LogLine>& lines)
    {
        EXPECT_THAT(captured_log().lines(), ElementsAreArray(lines));
    }
};

} // namespace

int hostapd_start()
{
    return called("hostapd_start", 1);
}
int hostapd_stop()
{
    return called("hostapd_stop", 1);
}
int wpa_supplicant_start()
{
    return called("wpa_supplicant_start", 1);
}
int wpa_supplicant_stop()
{
    return called("wpa_supplicant_stop", 1);
}
int dhcp_server_start()
{
    return called("dhcp_server_start", 1);
}
int dhcp_server_stop()
{
    return called("dhcp_server_stop", 1);
}
int dhcp_client_stop()
{
    return called("dhcp_client_stop", 1);
}
bool utils_flush_ip()
{
    return called("utils_flush_ip", 1) != 0;
}
bool utils_add_ip(const std::string& address)
{
    return called("utils_add_ip " + address, 1) != 0;
}
int utils_do_system_call(const std::string& command)
{
    return called(command, 0);
}

ShellPipe::ShellPipe(const std::string& command)
{
    pipeState.command = command;
    if (pipeState.opens) {
        output_.reset(dup(STDIN_FILENO));
    }
}
ShellPipe::~ShellPipe() = default;
std::string ShellPipe::read(size_t limit)
{
    pipeState.limit = limit;
    return pipeState.output.substr(0, limit);
}
std::string_view text_of(const std::string& bytes)
{
    return std::string_view(bytes.c_str());
}

namespace {

// Power

TEST_F(WifiController, PowerIsOnUnlessTheListingSaysYes)
{
    const std::vector<std::pair<std::string, int>> listings = {
        {"\tSoft blocked: no\n\tHard blocked: no\n", 1},
        {"\tSoft blocked: yes\n\tHard blocked: no\n", 0},
        {"\tSoft blocked: no\n\tHard blocked: yes\n", 0},
        {"", 1},
        {std::string("no\0yes", 6), 1},
        {std::string(253, '.') + "yes", 0},
        {std::string(254, '.') + "yes", 1},
        {std::string(256, '.') + "yes", 1},
    };
    for (const auto& [listing, on] : listings) {
        pipeState.output = listing;
        EXPECT_EQ(wifi_get_enabled(), on) << listing;
        EXPECT_EQ(wifi_get_state(), on) << listing;
        EXPECT_EQ(pipeState.command, "rfkill list wlan | tail -n +2 ");
        EXPECT_EQ(pipeState.limit, 256U);
    }
    expect_log({});
}

TEST_F(WifiController, PowerReadsOffWithoutAMessageWhenNoPipeCanBeOpened)
{
    pipeState.opens = false;
    EXPECT_EQ(wifi_get_enabled(), 0);
    EXPECT_EQ(wifi_get_state(), 0);
    expect_log({});
}

TEST_F(WifiController, SwitchingOnUnblocks)
{
    EXPECT_EQ(wifi_set_enabled(true), 1);
    expect_log({{LOG_INFO, "[WiFi] Enable wifi: True"}, call("rfkill unblock wlan")});
}

TEST_F(WifiController, SwitchingOffBlocks)
{
    EXPECT_EQ(wifi_set_enabled(false), 1);
    expect_log({{LOG_INFO, "[WiFi] Enable wifi: False"}, call("rfkill block wlan")});
}

TEST_F(WifiController, SwitchingOnFailsWithTheStatusOfTheCommand)
{
    results["rfkill unblock wlan"] = 32512;
    EXPECT_EQ(wifi_set_enabled(true), 0);
    expect_log({{LOG_INFO, "[WiFi] Enable wifi: True"},
                call("rfkill unblock wlan"),
                {LOG_ERR, "[WiFi] wifi_set_enabled: Unable to power on wifi, error: 32512"}});
}

TEST_F(WifiController, SwitchingOffFailsWithTheStatusOfTheCommandAndWithoutTheTag)
{
    results["rfkill block wlan"] = -1;
    EXPECT_EQ(wifi_set_enabled(false), 0);
    expect_log({{LOG_INFO, "[WiFi] Enable wifi: False"},
                call("rfkill block wlan"),
                {LOG_ERR, "wifi_set_enabled: Unable to power off wifi, error: -1"}});
}

// Mode

TEST_F(WifiController, ModeIsTheInterfaceTypeAndApGoesFirst)
{
    const std::vector<std::pair<std::string, WifiMode>> types = {
        {"\ttype AP\n", WifiMode::Host},
        {"\ttype managed\n", WifiMode::Client},
        {"\ttype managed AP\n", WifiMode::Host},
        {std::string(249, ' ') + "managed", WifiMode::Client},
        {"managed" + std::string(249, ' ') + "AP", WifiMode::Client},
    };
    for (const auto& [type, expected] : types) {
        pipeState.output = type;
        WifiMode mode = expected == WifiMode::Host ? WifiMode::Client : WifiMode::Host;
        EXPECT_EQ(wifi_get_mode(mode), 1) << type;
        EXPECT_EQ(mode, expected) << type;
        EXPECT_EQ(pipeState.command, "iw dev wlan0 info | grep type");
        EXPECT_EQ(pipeState.limit, 256U);
    }
    expect_log({});
}

TEST_F(WifiController, AnyOtherTypeIsUnknownAndLeavesTheModeAsItWas)
{
    for (const char* type : {"", "\ttype monitor\n", "\ttype Managed\n", "\ttype ap\n"}) {
        for (const WifiMode before : {WifiMode::Host, WifiMode::Client}) {
            pipeState.output = type;
            WifiMode mode = before;
            EXPECT_EQ(wifi_get_mode(mode), 0) << type;
            EXPECT_EQ(mode, before) << type;
        }
    }
    expect_log({});
}

TEST_F(WifiController, ModeIsUnknownWithoutAMessageWhenNoPipeCanBeOpened)
{
    pipeState.opens = false;
    pipeState.output = "\ttype AP\n";
    WifiMode mode = WifiMode::Client;
    EXPECT_EQ(wifi_get_mode(mode), 0);
    EXPECT_EQ(mode, WifiMode::Client);
    expect_log({});
}

// Client mode and Host mode

const std::string kClientStart = "[WiFi] Start Client mode";
const std::string kClientStop = "[WiFi] Stop Client mode";
const std::string kHostStart = "[WiFi] Start Host mode";
const std::string kHostStop = "[WiFi] Stop Host mode";
const std::string kAddAddress = "utils_add_ip 192.168.8.1/24";

/** A sequence: which call fails, what it yields then, and its calls and lines. */
struct Sequence
{
    const char* name;
    int (*run)();
    std::string failing;
    int result;
    std::vector<LogLine> steps;
};

void PrintTo(const Sequence& sequence, std::ostream* out)
{
    *out << sequence.name;
}

class WifiSequence : public WifiController, public testing::WithParamInterface<Sequence>
{
};

TEST_P(WifiSequence, EndsWithItsResultAfterTheseSteps)
{
    if (!GetParam().failing.empty()) {
        results[GetParam().failing] = 0;
    }
    EXPECT_EQ(GetParam().run(), GetParam().result);
    expect_log(GetParam().steps);
}

INSTANTIATE_TEST_SUITE_P(
    All, WifiSequence,
    testing::Values(
        Sequence{"ClientStartStartsTheStationAndThenRemovesAddresses", wifi_client_start, "", 1,
                 heading(kClientStart) + call("wpa_supplicant_start") + call("utils_flush_ip") + kSeparator},
        Sequence{"ClientStartGivesUpWhenTheStationDoesNotStart", wifi_client_start, "wpa_supplicant_start", 0,
                 heading(kClientStart) + call("wpa_supplicant_start") +
                     error("[WiFi] wifi_client_start: Failed to start WPA supplicant")},
        Sequence{"ClientStartGoesOnWhenAddressesCanNotBeRemoved", wifi_client_start, "utils_flush_ip", 1,
                 heading(kClientStart) + call("wpa_supplicant_start") + call("utils_flush_ip") +
                     kFlushFailed + kSeparator},
        Sequence{"ClientStopStopsTheDhcpClientAndThenTheStation", wifi_client_stop, "", 1,
                 heading(kClientStop) + call("dhcp_client_stop") + call("wpa_supplicant_stop") + kSeparator},
        Sequence{"ClientStopLeavesTheStationAloneWhenTheDhcpClientDoesNotStop", wifi_client_stop,
                 "dhcp_client_stop", 0,
                 heading(kClientStop) + call("dhcp_client_stop") +
                     error("wifi_client_stop: Unable to stop udhcpc")},
        Sequence{"ClientStopFailsWhenTheStationDoesNotStop", wifi_client_stop, "wpa_supplicant_stop", 0,
                 heading(kClientStop) + call("dhcp_client_stop") + call("wpa_supplicant_stop") +
                     error("Failed to stop WPE Supplicant service")},
        Sequence{"HostStartSetsTheAddressAndStartsAccessPointAndDhcpServer", wifi_host_start, "", 1,
                 heading(kHostStart) + call("utils_flush_ip") + call(kAddAddress) + call("hostapd_start") +
                     call("dhcp_server_start") + kSeparator},
        Sequence{"HostStartGoesOnWhenAddressesCanNotBeRemoved", wifi_host_start, "utils_flush_ip", 1,
                 heading(kHostStart) + call("utils_flush_ip") + kFlushFailed + call(kAddAddress) +
                     call("hostapd_start") + call("dhcp_server_start") + kSeparator},
        Sequence{"HostStartStartsNothingWithoutTheAddress", wifi_host_start, kAddAddress, 0,
                 heading(kHostStart) + call("utils_flush_ip") + call(kAddAddress) +
                     error("[WiFi] wifi_host_start: Failed to add IP address")},
        Sequence{"HostStartLeavesTheDhcpServerAloneWhenTheAccessPointDoesNotStart", wifi_host_start,
                 "hostapd_start", 0,
                 heading(kHostStart) + call("utils_flush_ip") + call(kAddAddress) + call("hostapd_start") +
                     warning("[WiFi] Failed to start hostapd service")},
        Sequence{"HostStartLeavesTheAccessPointUpWhenTheDhcpServerDoesNotStart", wifi_host_start,
                 "dhcp_server_start", 0,
                 heading(kHostStart) + call("utils_flush_ip") + call(kAddAddress) + call("hostapd_start") +
                     call("dhcp_server_start") + warning("[WiFi] Failed to start udhcpd service")},
        Sequence{"HostStopStopsTheDhcpServerAndThenTheAccessPoint", wifi_host_stop, "", 1,
                 heading(kHostStop) + call("dhcp_server_stop") + call("hostapd_stop") + kSeparator},
        Sequence{"HostStopLeavesTheAccessPointAloneWhenTheDhcpServerDoesNotStop", wifi_host_stop,
                 "dhcp_server_stop", 0,
                 heading(kHostStop) + call("dhcp_server_stop") +
                     warning("[WiFi] Failed to stop udhcpd service")},
        Sequence{"HostStopFailsWhenTheAccessPointDoesNotStop", wifi_host_stop, "hostapd_stop", 0,
                 heading(kHostStop) + call("dhcp_server_stop") + call("hostapd_stop") +
                     warning("[WiFi] Failed to stop hostapd service")}),
    [](const auto& tested) { return tested.param.name; });

// Switching

/** A switch: which call fails, the calls made until then, and the message that ends it. */
struct SwitchCase
{
    WifiMode target;
    std::string failing;
    std::vector<std::string> calls;
    std::string message;
};

TEST_F(WifiController, SwitchStopsTheOtherModeFirstAndEndsAtTheFirstFailure)
{
    const std::vector<std::string> toClient = {"dhcp_server_stop", "hostapd_stop", "wpa_supplicant_start",
                                               "utils_flush_ip"};
    const std::vector<std::string> toHost = {"dhcp_client_stop", "wpa_supplicant_stop", "utils_flush_ip",
                                             kAddAddress,        "hostapd_start",       "dhcp_server_start"};
    const std::vector<SwitchCase> cases = {
        {WifiMode::Client, "", toClient, ""},
        {WifiMode::Client,
         "dhcp_server_stop",
         {"dhcp_server_stop"},
         "[WiFi] wifi_mode_switch: Failed to stop Host mode"},
        {WifiMode::Client,
         "hostapd_stop",
         {"dhcp_server_stop", "hostapd_stop"},
         "[WiFi] wifi_mode_switch: Failed to stop Host mode"},
        {WifiMode::Client,
         "wpa_supplicant_start",
         {"dhcp_server_stop", "hostapd_stop", "wpa_supplicant_start"},
         "[WiFi] wifi_mode_switch: Failed to start Client mode"},
        {static_cast<WifiMode>(7), "", toClient, ""},
        {WifiMode::Host, "", toHost, ""},
        {WifiMode::Host,
         "dhcp_client_stop",
         {"dhcp_client_stop"},
         "[WiFi] wifi_mode_switch: Failed to stop Client mode"},
        {WifiMode::Host,
         "wpa_supplicant_stop",
         {"dhcp_client_stop", "wpa_supplicant_stop"},
         "[WiFi] wifi_mode_switch: Failed to stop Client mode"},
        {WifiMode::Host, "dhcp_server_start", toHost, "[WiFi] wifi_mode_switch: Failed to start Host mode"},
    };
    for (const SwitchCase& tried : cases) {
        SCOPED_TRACE(std::to_string(static_cast<int>(tried.target)) + " " + tried.failing);
        captured_log().clear();
        results.clear();
        if (!tried.failing.empty()) {
            results[tried.failing] = 0;
        }

        EXPECT_EQ(wifi_mode_switch(tried.target), tried.failing.empty() ? 1 : 0);

        const std::vector<LogLine> lines = captured_log().lines();
        std::vector<std::string> calls;
        for (const auto& [priority, text] : lines) {
            if (priority == kCall) {
                calls.push_back(text);
            }
        }
        EXPECT_EQ(calls, tried.calls);
        EXPECT_EQ(lines.front(), line(LOG_INFO, "[WiFi] Switch wifi mode to " +
                                                    std::to_string(static_cast<int>(tried.target))));
        EXPECT_EQ(lines.back(), tried.failing.empty() ? kSeparator : line(LOG_ERR, tried.message));
    }
}

} // namespace
