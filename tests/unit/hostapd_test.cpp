#include "radio/hostapd.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <syslog.h>
#include <time.h>
#include <wpa_ctrl.h>

#include "config/wifi_config.hpp"
#include "listeners/control_request.hpp"
#include "listeners/hostapd_socket_listener.hpp"
#include "radio/hostapd_config.hpp"
#include "support/captured_log.hpp"
#include "utils/systemd_units.hpp"

// Everything below the access-point control is replaced: configuration file, units, listener and the control
// socket. Each call is noted in the log, so that calls and messages stand in one order.

using testing::ElementsAre;
using testing::Pair;
using testing_support::captured_log;
using testing_support::line;
using testing_support::LogLine;

namespace {

/** Priority under which calls stand in the log. */
constexpr int kCall = -1;

/** What the replaced functions return: 1, unless the test says otherwise. */
std::map<std::string, int> results;

/** What the settings say, and what the last configuration was to be. */
struct
{
    HostapdConfig overrides;
    HostapdConfig configured;
    std::string defaultFrequency = "2.4";
} configuration;

/** hostapd behind the control socket. */
struct
{
    bool reachable = true;
    std::function<std::string(const std::string&)> answer;
    std::vector<std::string> requests;
    std::vector<std::chrono::steady_clock::time_point> until;
    std::vector<std::string> asked;
} socketState;

int called(const std::string& name)
{
    captured_log().note(kCall, name);
    const auto found = results.find(name);
    return found != results.end() ? found->second : 1;
}

LogLine call(const std::string& name)
{
    return {kCall, name};
}

std::string remembered()
{
    std::string ssid = "untouched";
    std::string frequency = "untouched";
    EXPECT_EQ(hostapd_get_ssid(ssid), 1);
    EXPECT_EQ(hostapd_get_frequency(frequency), 1);
    return ssid + "/" + frequency;
}

std::string address(int number)
{
    char text[18];
    std::snprintf(text, sizeof text, "02:00:00:00:%02x:%02x", number / 256, number % 256);
    return text;
}

} // namespace

void hostapd_get_overrides(HostapdConfig& overrides)
{
    overrides = configuration.overrides;
}
int hostapd_set_conf(const HostapdConfig& overrides)
{
    configuration.configured = overrides;
    return called("hostapd_set_conf");
}
std::string hostapd_hw_mode_of(const std::string& frequency)
{
    return frequency == "5" ? "a" : "g";
}
std::string hostapd_frequency_of(const std::string& hwMode)
{
    return hwMode == "a" ? "5" : "2.4";
}
std::string default_frequency()
{
    return configuration.defaultFrequency;
}

int utils_load_service_unit(const std::string& name, std::string& path)
{
    path = "/unit";
    return called("load " + name);
}
int utils_start_service(const std::string& path)
{
    return called("start " + path);
}
int utils_restart_service(const std::string& path)
{
    return called("restart " + path);
}
int utils_stop_service(const std::string& path)
{
    return called("stop " + path);
}

std::shared_ptr<HostapdSocketListner> hostapd_listener()
{
    static const auto kListener = std::make_shared<HostapdSocketListner>();
    return kListener;
}
void HostapdSocketListner::SignalEvent(const char*)
{
}
void HostapdSocketListner::Start()
{
    called("listener Start");
}
void HostapdSocketListner::Reset()
{
    called("listener Reset");
}
void WpaSocketListener::Restart()
{
    called("listener Restart");
}
WpaCtrlPtr HostapdSocketListner::ConnectSocket(const std::string& interface)
{
    called("connect " + interface);
    return WpaCtrlPtr(socketState.reachable ? reinterpret_cast<wpa_ctrl*>(&socketState) : nullptr);
}
int HostapdSocketListner::IsStationDisconnected(const char* record) const
{
    socketState.asked.emplace_back(record);
    return socketState.asked.back().find(':') == std::string::npos ? 1 : 0;
}

void wpa_ctrl_close(wpa_ctrl*)
{
    called("close");
}
int32_t control_request(wpa_ctrl*, const char* command, char* reply, size_t& length, const ControlWait& wait)
{
    socketState.requests.emplace_back(command);
    socketState.until.push_back(wait.until);
    length = socketState.answer(socketState.requests.back()).copy(reply, length);
    return 0;
}

namespace {

/** What the next pause sees: each interruption leaves a part of it. */
int interruptions = 0;

} // namespace

extern "C" int nanosleep(const timespec* time, timespec* left)
{
    called("sleep " + std::to_string(time->tv_sec) + " " + std::to_string(time->tv_nsec));
    if (interruptions == 0) {
        return 0;
    }
    --interruptions;
    *left = {.tv_sec = 0, .tv_nsec = time->tv_nsec - 100};
    errno = EINTR;
    return -1;
}

namespace {

class AccessPoint : public testing::Test
{
protected:
    void SetUp() override
    {
        configuration = {};
        configuration.overrides = settings("Attic", "g");
        socketState = {};
        results.clear();
        interruptions = 0;
        // What is remembered is remembered for the life of the process: a known beginning for each test.
        hostapd_start();
        configuration.overrides = settings("Cellar", "a");
        captured_log().clear();
        ASSERT_EQ(remembered(), "Attic/2.4");
    }

    static HostapdConfig settings(const std::string& ssid, const std::string& hwMode)
    {
        return {{"ssid", ssid}, {"hw_mode", hwMode}, {"acs_blacklist", "52"}};
    }
};

/** Has to be the first of all: nothing in this program has started an access point yet. */
TEST(ABeginning, NothingIsRememberedBeforeTheFirstStart)
{
    EXPECT_EQ(remembered(), "/");
}

// Start and restart

TEST_F(AccessPoint, StartConfiguresStartsAndListens)
{
    EXPECT_EQ(hostapd_start(), 1);
    EXPECT_EQ(configuration.configured, settings("Cellar", "a"));
    EXPECT_EQ(remembered(), "Cellar/5");
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(line(LOG_INFO, "Starting Hostapd daemon service"), call("hostapd_set_conf"),
                            call("load hostapd.service"), call("start /unit"), call("listener Start")));
}

TEST_F(AccessPoint, TheNameThatIsRememberedIsTheOneThatHostapdWasGiven)
{
    for (const auto& start : {hostapd_start, hostapd_restart}) {
        configuration.overrides = settings("Loft\nwpa=0", "g");
        EXPECT_EQ(start(), 1);
        EXPECT_EQ(configuration.configured, configuration.overrides);
        EXPECT_EQ(remembered(), "Loft/2.4");
        configuration.overrides = settings(std::string(40, 'x'), "g");
        EXPECT_EQ(start(), 1);
        EXPECT_EQ(remembered(), std::string(40, 'x') + "/2.4");
    }
    EXPECT_EQ(hostapd_set_ssid("Shed\n"), 1);
    EXPECT_EQ(remembered(), "Shed/2.4");
}

TEST_F(AccessPoint, RestartQueuesAStartJobAndListensAnew)
{
    EXPECT_EQ(hostapd_restart(), 1);
    EXPECT_EQ(configuration.configured, settings("Cellar", "a"));
    EXPECT_EQ(remembered(), "Cellar/5");
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(line(LOG_INFO, "Re-Starting Hostapd daemon service"), call("hostapd_set_conf"),
                            call("load hostapd.service"), call("start /unit"), call("listener Restart")));
}

TEST_F(AccessPoint, AConfigurationThatCouldNotBeWrittenDoesNotHoldUpTheStart)
{
    results["hostapd_set_conf"] = 0;
    for (const auto& start : {hostapd_start, hostapd_restart}) {
        captured_log().clear();
        EXPECT_EQ(start(), 1);
        const std::vector<LogLine> lines = captured_log().lines();
        ASSERT_EQ(lines.size(), 6U);
        EXPECT_EQ(lines[1], call("hostapd_set_conf"));
        EXPECT_EQ(lines[2], line(LOG_WARNING, "[WiFi] Failed to set hostapd configuration"));
        EXPECT_EQ(lines[3], call("load hostapd.service"));
        EXPECT_EQ(remembered(), "Cellar/5");
    }
}

TEST_F(AccessPoint, AUnitThatIsNotFoundIsNotStartedAndAllTheSameRemembered)
{
    results["load hostapd.service"] = 0;
    for (const auto& start : {hostapd_start, hostapd_restart}) {
        captured_log().clear();
        EXPECT_EQ(start(), 0);
        EXPECT_EQ(captured_log().lines().back(), call("load hostapd.service"));
        EXPECT_EQ(remembered(), "Cellar/5");
    }
}

TEST_F(AccessPoint, NobodyListensToAUnitThatDidNotStart)
{
    results["start /unit"] = 0;
    for (const auto& start : {hostapd_start, hostapd_restart}) {
        captured_log().clear();
        EXPECT_EQ(start(), 0);
        EXPECT_EQ(captured_log().lines().back(), call("start /unit"));
        EXPECT_EQ(remembered(), "Cellar/5");
    }
}

// Stop

TEST_F(AccessPoint, StopStopsListeningStopsTheUnitAndGivesItHalfASecond)
{
    EXPECT_EQ(hostapd_stop(), 1);
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(line(LOG_INFO, "Stopping Hostapd daemon service"), call("listener Reset"),
                            call("load hostapd.service"), call("stop /unit"), call("sleep 0 500000000")));
    EXPECT_EQ(remembered(), "Attic/2.4");
}

TEST_F(AccessPoint, AnInterruptedPauseGoesOnForTheRestOfIt)
{
    interruptions = 2;
    EXPECT_EQ(hostapd_stop(), 1);
    const std::vector<LogLine> lines = captured_log().lines();
    ASSERT_EQ(lines.size(), 7U);
    EXPECT_EQ(lines[4], call("sleep 0 500000000"));
    EXPECT_EQ(lines[5], call("sleep 0 499999900"));
    EXPECT_EQ(lines[6], call("sleep 0 499999800"));
}

TEST_F(AccessPoint, AUnitThatIsNotFoundOrDoesNotStopIsNotWaitedFor)
{
    for (const char* failing : {"load hostapd.service", "stop /unit"}) {
        results = {{failing, 0}};
        captured_log().clear();
        EXPECT_EQ(hostapd_stop(), 0);
        EXPECT_EQ(captured_log().lines().back(), call(failing));
        EXPECT_EQ(remembered(), "Attic/2.4");
    }
}

// SSID and band

TEST_F(AccessPoint, ANewSsidIsConfiguredRestartedAndRememberedAndTheListenerLeftAlone)
{
    EXPECT_EQ(hostapd_set_ssid("Garden"), 1);
    EXPECT_EQ(configuration.configured, settings("Garden", "a"));
    EXPECT_EQ(remembered(), "Garden/2.4");
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(call("hostapd_set_conf"), call("load hostapd.service"), call("restart /unit")));
}

TEST_F(AccessPoint, ANewBandIsConfiguredRestartedAndRememberedAndTheListenerRestarted)
{
    EXPECT_EQ(hostapd_set_frequency("5"), 1);
    EXPECT_EQ(configuration.configured, settings("Cellar", "a"));
    EXPECT_EQ(remembered(), "Attic/5");
    EXPECT_THAT(captured_log().lines(), ElementsAre(call("hostapd_set_conf"), call("load hostapd.service"),
                                                    call("restart /unit"), call("listener Restart")));

    EXPECT_EQ(hostapd_set_frequency("2.4"), 1);
    EXPECT_EQ(configuration.configured, settings("Cellar", "g"));
    EXPECT_EQ(remembered(), "Attic/2.4");
}

TEST_F(AccessPoint, AnEmptyBandIsTheDefaultOne)
{
    for (const auto& [frequency, hwMode] : {std::pair("5", "a"), std::pair("2.4", "g")}) {
        configuration.defaultFrequency = frequency;
        EXPECT_EQ(hostapd_set_frequency(""), 1);
        EXPECT_EQ(configuration.configured, settings("Cellar", hwMode));
        EXPECT_EQ(remembered(), std::string("Attic/") + frequency);
    }
}

TEST_F(AccessPoint, AnyOtherBandIsRefusedBeforeAnythingIsDone)
{
    configuration.configured.clear();
    for (const char* frequency : {"2.40", "5.0", " 5", "a", "5GHz"}) {
        EXPECT_EQ(hostapd_set_frequency(frequency), 0);
    }
    EXPECT_TRUE(captured_log().lines().empty());
    EXPECT_TRUE(configuration.configured.empty());
    EXPECT_EQ(remembered(), "Attic/2.4");
}

TEST_F(AccessPoint, AConfigurationThatCouldNotBeWrittenDoesNotHoldUpAChange)
{
    results["hostapd_set_conf"] = 0;
    EXPECT_EQ(hostapd_set_ssid("Garden"), 1);
    EXPECT_EQ(hostapd_set_frequency("5"), 1);
    EXPECT_EQ(remembered(), "Garden/5");
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(call("hostapd_set_conf"), call("load hostapd.service"), call("restart /unit"),
                            call("hostapd_set_conf"), call("load hostapd.service"), call("restart /unit"),
                            call("listener Restart")));
}

TEST_F(AccessPoint, AChangeThatDidNotReachTheUnitIsNotRemembered)
{
    for (const char* failing : {"load hostapd.service", "restart /unit"}) {
        results = {{failing, 0}};
        EXPECT_EQ(hostapd_set_ssid("Garden"), 0);
        EXPECT_EQ(captured_log().lines().back(), call(failing));
        EXPECT_EQ(hostapd_set_frequency("5"), 0);
        EXPECT_EQ(captured_log().lines().back(), call(failing));
        EXPECT_EQ(remembered(), "Attic/2.4");
    }
}

// Station count

/** A hostapd with so many stations, each of which has a long record. */
std::string many_stations(const std::string& request, int count)
{
    int index = 0;
    if (request != "STA-FIRST") {
        const std::string last = request.substr(std::strlen("STA-NEXT "), 17);
        while (index < count && address(index) != last) {
            ++index;
        }
        ++index;
    }
    return index < count ? address(index) + "\nflags=[AUTH][ASSOC][AUTHORIZED]\naid=1\n" : "";
}

TEST_F(AccessPoint, StationsAreAskedForOneAfterTheOtherByTheStartOfTheirRecords)
{
    socketState.answer = [](const std::string& request) { return many_stations(request, 2); };
    uint32_t count = 99;
    EXPECT_EQ(hostapd_get_num_connected_clients(count), 1);
    EXPECT_EQ(count, 2U);
    const std::string first = "02:00:00:00:00:00\nflags=[AUTH][A";
    const std::string second = "02:00:00:00:00:01\nflags=[AUTH][A";
    ASSERT_EQ(first.size(), 32U);
    EXPECT_THAT(socketState.requests, ElementsAre("STA-FIRST", "STA-NEXT " + first, "STA-NEXT " + second));
    EXPECT_THAT(socketState.asked, ElementsAre(first, second));
    EXPECT_THAT(captured_log().lines(), ElementsAre(call("connect wlan0"), call("close")));
}

TEST_F(AccessPoint, AllQuestionsOfACountHaveTenSecondsTogether)
{
    socketState.answer = [](const std::string& request) { return many_stations(request, 100); };
    const auto latest = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    uint32_t count = 0;
    EXPECT_EQ(hostapd_get_num_connected_clients(count), 1);
    EXPECT_EQ(count, 100U);
    EXPECT_THAT(socketState.until, testing::Each(socketState.until.front()));
    EXPECT_GE(socketState.until.front(), latest);
    EXPECT_LT(socketState.until.front(), latest + std::chrono::seconds(5));
}

TEST_F(AccessPoint, ARecordThatFillsItsAreaIsReadNoFurtherThanItsEnd)
{
    const std::string record = "02:00:00:00:00:01" + std::string(15, 'x');
    ASSERT_EQ(record.size(), 32U);
    socketState.answer = [&](const std::string& request) { return request == "STA-FIRST" ? record : ""; };
    uint32_t count = 0;
    EXPECT_EQ(hostapd_get_num_connected_clients(count), 1);
    EXPECT_EQ(count, 1U);
    EXPECT_THAT(socketState.asked, ElementsAre(record));
    EXPECT_THAT(socketState.requests, ElementsAre("STA-FIRST", "STA-NEXT " + record));
}

TEST_F(AccessPoint, NothingOfALongerRecordIsLeftBehindAShorterOne)
{
    socketState.answer = [](const std::string& request) -> std::string {
        if (request == "STA-FIRST") {
            return "02:00:00:00:00:01\nflags=[AUTH][ASSOC]";
        }
        return request.find(":02") == std::string::npos ? "02:00:00:00:00:02" : "";
    };
    uint32_t count = 0;
    EXPECT_EQ(hostapd_get_num_connected_clients(count), 1);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(socketState.asked.back(), "02:00:00:00:00:02");
    EXPECT_EQ(socketState.requests.back(), "STA-NEXT 02:00:00:00:00:02");
}

TEST_F(AccessPoint, ARecordThatHoldsNoAddressIsNotCountedAndAskedOnFrom)
{
    socketState.answer = [](const std::string& request) {
        return request == "STA-FIRST" ? "UNKNOWN COMMAND\n" : "FAIL\n";
    };
    uint32_t count = 0;
    EXPECT_EQ(hostapd_get_num_connected_clients(count), 1);
    EXPECT_EQ(count, 0U);
    EXPECT_THAT(socketState.requests, ElementsAre("STA-FIRST", "STA-NEXT UNKNOWN COMMAND\n"));
}

TEST_F(AccessPoint, TheLargestAccessPointIsCountedWhole)
{
    socketState.answer = [](const std::string& request) { return many_stations(request, 2007); };
    uint32_t count = 0;
    EXPECT_EQ(hostapd_get_num_connected_clients(count), 1);
    EXPECT_EQ(count, 2007U);
}

TEST_F(AccessPoint, ASocketThatNeverComesToAnEndIsLeftAfter2007Stations)
{
    socketState.answer = [](const std::string&) { return "02:00:00:00:00:01\nflags="; };
    uint32_t count = 0;
    EXPECT_EQ(hostapd_get_num_connected_clients(count), 1);
    EXPECT_EQ(count, 2007U);
    EXPECT_EQ(socketState.requests.size(), 2007U);
    EXPECT_EQ(captured_log().lines().back(), call("close"));
}

TEST_F(AccessPoint, WithoutAConnectionTheCountIsZero)
{
    socketState.reachable = false;
    uint32_t count = 99;
    EXPECT_EQ(hostapd_get_num_connected_clients(count), 0);
    EXPECT_EQ(count, 0U);
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(call("connect wlan0"),
                            line(LOG_ERR, "hostapd_get_num_connected_clients: Could not connect to hostapd "
                                          "socket.")));
}

} // namespace
