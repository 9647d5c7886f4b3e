// What the client makes of what the daemon announces: `monitor`, and the picture that is kept for those who
// watch.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/commands.hpp"
#include "client/daemon_names.hpp"
#include "client/follower.hpp"
#include "support/captured_output.hpp"
#include "support/played_wifi.hpp"
#include "support/private_bus.hpp"

namespace {

using namespace std::chrono_literals;
using client::Arguments;
using client::Clock;
using client::Daemon;
using client::ExitStatus;
using client::Follower;
using client::Json;
using client::kNever;
using testing::ElementsAreArray;
using testing_support::CapturedOutput;
using testing_support::PlayedWifi;
using testing_support::PrivateBus;
using Requests = std::vector<std::string>;

/** The questions after the whole state. */
const Requests kState = {"Get WiFiState",
                         "Get Mode",
                         "Get SSID",
                         "Get WiFiFrequency",
                         "Get WiFiAvailableFrequencies",
                         "Get WiFiAccessPointInitialised",
                         "Get WiFiConnectedClients",
                         "Get ClientSSID",
                         "Get WiFiClientState",
                         "Get IPAddress",
                         "Get MacAddress",
                         "Get WiFiSignal"};

Requests joined(std::initializer_list<Requests> parts)
{
    Requests all;
    for (const Requests& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

void say_nonsense(PlayedWifi& wifi)
{
    wifi.emit(client::kInterface, "AccessPointsChanged",
              [](sd_bus_message* signal) { sd_bus_message_append(signal, "s", "nonsense"); });
}

/** A stranger says what only the daemon and the bus can say. */
void forge_everything(PlayedWifi& wifi)
{
    wifi.forge(client::kPath, client::kProperties, "PropertiesChanged", [](sd_bus_message* signal) {
        sd_bus_message_append(signal, "sa{sv}as", client::kInterface, 1, "Mode", "s", "forged", 0);
    });
    wifi.forge(client::kPath, client::kInterface, "AccessPointsChanged",
               [](sd_bus_message* signal) { sd_bus_message_append(signal, "s", "forged"); });
    wifi.forge(client::kPath, client::kInterface, "AccessPointsChanged",
               [](sd_bus_message* signal) { sd_bus_message_append(signal, "a(siib)", 0); });
    wifi.forge(client::kBusPath, client::kBus, "NameOwnerChanged", [](sd_bus_message* signal) {
        sd_bus_message_append(signal, "sss", client::kName, ":1.1", "");
    });
}

// monitor

/** Everything that is shown, and in the end a question that fails. */
void go_through_everything(PlayedWifi& wifi, const std::string& request, int count)
{
    if (request == "Get WiFiSignal" && count == 1) {
        wifi.answer();
        forge_everything(wifi);
        wifi.announce("IPAddress", "10.0.0.9");
        wifi.announce("WiFiSignal", "txpower 10.00 dB");
        wifi.announce("Odd", "of a later daemon");
        wifi.announce("WiFiState", "on"); // is a number
        wifi.properties["WiFiState"] = 1U;
        wifi.announce_networks(Json::array());
        wifi.announce_networks(Json::array({{"cafe", 1, -41, true}, {"free", 0, -60, false}}));
        say_nonsense(wifi);
        wifi.properties["ClientSSID"] = "cafe";
        wifi.announce("WiFiClientState", "completed");
    } else if (request == "Get ClientSSID" && count == 2) {
        wifi.answer();
        wifi.announce("SSID", "");
    } else if (request == "Get ClientSSID" && count == 3) {
        wifi.answer();
        wifi.leave();
        wifi.come_back();
    } else if (request == "Get WiFiSignal" && count == 2) {
        wifi.answer();
        wifi.announce("SSID", "");
    } else if (request == "Get ClientSSID" && count == 5) {
        wifi.refuse("", SD_BUS_ERROR_SERVICE_UNKNOWN); // it says so itself, and is waited for
        wifi.announce("SSID", "");
    } else if (request == "Get ClientSSID" && count == 6) {
        wifi.refuse("No");
    }
}

/** The present second. */
std::string time_text(bool json)
{
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::array<char, 32> text{};
    std::tm parts{};
    std::strftime(text.data(), text.size(), json ? "%Y-%m-%dT%H:%M:%S" : "%H:%M:%S",
                  json ? ::gmtime_r(&now, &parts) : ::localtime_r(&now, &parts));
    return text.data();
}

/** Whether there are digits where the shape has 0, and else what the shape has. */
bool has_shape(const std::string& text, const std::string& shape)
{
    return std::ranges::equal(text, shape, [](char character, char wanted) {
        return wanted == '0' ? character >= '0' && character <= '9' : character == wanted;
    });
}

class ClientMonitor : public testing::Test
{
protected:
    /** What `monitor` writes of everything, in which each right time is "TIME". */
    std::string written(bool json)
    {
        Arguments arguments;
        arguments.json = json;
        PlayedWifi wifi(bus, Json::object(), go_through_everything);
        auto daemon = Daemon::connect(Clock::now() + 20s);
        std::string text;
        const std::string before = time_text(json);
        {
            const CapturedOutput captured;
            client::Output output(json);
            const auto failure = client::run_monitor(*daemon.value(), arguments, output);
            text = captured.text();
            EXPECT_TRUE(failure && failure->daemonText == "No");
        }
        const std::string after = time_text(json);
        EXPECT_THAT(wifi.end(), ElementsAreArray(joined({kState,
                                                         {"Get ClientSSID", "Get ClientSSID"},
                                                         kState,
                                                         {"Get ClientSSID", "Get ClientSSID"}})));
        const std::string shape = json ? "0000-00-00T00:00:00.000Z" : "00:00:00  ";
        std::string written;
        for (std::size_t at = 0; at < text.size(); ++at) {
            const std::string part = text.substr(at, shape.size());
            if (!has_shape(part, shape)) {
                written += text[at];
                continue;
            }
            const std::string told = part.substr(0, before.size());
            EXPECT_TRUE((before <= told && told <= after) || after < before) << told << " " << before;
            written += json ? "TIME" : "TIME  ";
            at += shape.size() - 1;
        }
        return written;
    }

    PrivateBus bus{testing_support::BusRole::User};
};

TEST_F(ClientMonitor, ShowsPeopleEveryChangeByTheirOwnTime)
{
    ::setenv("TZ", "Here-05:30", 1);
    ::tzset();
    const std::string state = "Radio           on\n"
                              "Mode            Client (station)\n"
                              "Bands           5, 2.4\n";
    EXPECT_EQ(
        written(false),
        state +
            "Network         -\n"
            "State           inactive (no network to look for)\n"
            "Address         -\n"
            "MAC address     02:00:00:00:10:01\n"
            "Transmit power  20.00 dB\n"
            "TIME  Address         10.0.0.9\n"
            "TIME  Transmit power  10.00 dB\n"
            "vantora-wifi: a signal of the daemon cannot be read and is passed over: PropertiesChanged\n"
            "TIME  Networks        0 in range\n"
            "TIME  Networks        2 in range, strongest \"cafe\" -41 dBm\n"
            "vantora-wifi: a signal of the daemon cannot be read and is passed over: AccessPointsChanged\n"
            "TIME  State           completed (connected)\n"
            "TIME  Network         cafe\n"
            "TIME  SSID            -\n"
            "TIME  Daemon          has left the bus; waiting for it to come back\n"
            "TIME  Daemon          is back\n" +
            state +
            "Network         cafe\n"
            "State           completed (connected)\n"
            "Address         10.0.0.9\n"
            "MAC address     02:00:00:00:10:01\n"
            "Transmit power  10.00 dB\n"
            "TIME  SSID            -\n"
            "TIME  SSID            -\n");
}

TEST_F(ClientMonitor, ShowsProgramsEveryChangeByTheTimeOfTheWorld)
{
    ::setenv("TZ", "Here-05:30", 1);
    ::tzset();
    const auto status = [](const std::string& address, const std::string& network, const std::string& state,
                           const std::string& power) {
        return R"({"access_point_ready":false,"address":")" + address +
               R"(","band":"","bands":["5","2.4"],)" + R"("client_ssid":")" + network +
               R"(","client_state":")" + state +
               R"(","mac_address":"02:00:00:00:10:01","mode":"Client","radio":"on","ssid":"","stations":0,)"
               R"("time":"TIME","transmit_power":"txpower )" +
               power + R"( dB","type":"status"})" + "\n";
    };
    const auto changed = [](const std::string& name, const std::string& value) {
        return R"({"name":")" + name + R"(","time":"TIME","type":"changed","value":")" + value + "\"}\n";
    };
    const auto warning = [](const std::string& member) {
        return R"({"text":"a signal of the daemon cannot be read and is passed over: )" + member +
               R"(","type":"warning"})" + "\n";
    };
    EXPECT_EQ(written(true),
              status("", "", "inactive", "20.00") + changed("address", "10.0.0.9") +
                  changed("transmit_power", "txpower 10.00 dB") + warning("PropertiesChanged") +
                  R"({"networks":[],"time":"TIME","type":"networks"})"
                  "\n"
                  R"({"networks":[)"
                  R"({"bars":4,"encrypted":true,"joinable":true,"signal":-41,"ssid":"cafe","wpa_psk":true},)"
                  R"({"bars":3,"encrypted":false,"joinable":true,"signal":-60,"ssid":"free","wpa_psk":false})"
                  R"(],"time":"TIME","type":"networks"})"
                  "\n" +
                  warning("AccessPointsChanged") + changed("client_state", "completed") +
                  changed("client_ssid", "cafe") + changed("ssid", "") +
                  R"({"running":false,"time":"TIME","type":"daemon"})"
                  "\n"
                  R"({"running":true,"time":"TIME","type":"daemon"})"
                  "\n" +
                  status("10.0.0.9", "cafe", "completed", "10.00") + changed("ssid", "") +
                  changed("ssid", ""));
}

TEST_F(ClientMonitor, EndsWhenNobodyReads)
{
    PlayedWifi wifi(bus, Json::object(), [](PlayedWifi& played, const std::string& request, int) {
        if (request == "Get WiFiSignal") {
            played.announce("IPAddress", "10.0.0.9");
        }
    });
    auto daemon = Daemon::connect(Clock::now() + 20s);
    const CapturedOutput captured;
    const UniqueFd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    ::dup2(full.get(), STDOUT_FILENO);
    client::Output output(false);
    EXPECT_FALSE(client::run_monitor(*daemon.value(), {}, output));
    std::clearerr(stdout);
}

// The picture

/** A follower of a played daemon. */
class ClientFollower : public testing::Test
{
protected:
    /** Follows until that holds. */
    void follow(const PlayedWifi::Script& script, const std::function<bool()>& reached)
    {
        wifi.emplace(bus, Json::object(), script);
        auto connected = Daemon::connect(Clock::now() + 20s);
        daemon = std::move(connected.value());
        follower.emplace(
            *daemon, 20s,
            [this] { changes += follower->is_complete()  ? 'C'
                                : follower->is_running() ? '.'
                                                         : '-'; },
            [this](const std::string& text) { changes += "(" + text + ")"; });
        EXPECT_FALSE(follower->begin());
        go_on_until(reached);
    }

    void go_on_until(const std::function<bool()>& reached) const
    {
        const auto deadline = Clock::now() + 20s;
        while (!reached() && Clock::now() < deadline) {
            EXPECT_FALSE(daemon->step(deadline));
        }
        EXPECT_TRUE(reached());
    }

    PrivateBus bus{testing_support::BusRole::User};
    std::optional<PlayedWifi> wifi;
    std::unique_ptr<Daemon> daemon;
    std::optional<Follower> follower;
    std::string changes; // what was to be seen at each: complete, incomplete, or not running
};

const Requests kPicture = joined({kState, {"Get AccessPoints"}});

TEST_F(ClientFollower, AsksOneQuestionAfterTheOtherAndThoseThatAChangeRaises)
{
    follow(
        [](PlayedWifi& played, const std::string& request, int count) {
            if (request == "Get AccessPoints" && count == 1) {
                played.answer();
                say_nonsense(played);
                played.announce("IPAddress", "10.0.0.9");
                played.announce_networks(Json::array({{"cafe", 1, -41, true}}));
                played.announce("WiFiClientState", "completed");
            } else if (request == "Get ClientSSID" && count == 2) {
                played.properties["ClientSSID"] = "cafe";
                played.answer();
                played.announce("SSID", "Hallway");
            } else if (request == "Get ClientSSID" && count == 3) {
                played.answer();
                played.announce("Mode", "Host");
            } else if (request == "Get WiFiSignal" && count == 2) {
                played.refuse("No"); // known before, and no longer
            } else if (request == "Get WiFiState" && count == 2) {
                played.refuse("", SD_BUS_ERROR_TIMEOUT); // asked again behind the others
            }
        },
        [this] { return follower->is_complete() && follower->fields()["mode"] == "Host"; });
    EXPECT_THAT(wifi->end(),
                ElementsAreArray(
                    joined({kPicture, {"Get ClientSSID", "Get ClientSSID"}, kPicture, {"Get WiFiState"}})));
    EXPECT_EQ(changes, "............C"
                       "(a signal of the daemon cannot be read and is passed over: AccessPointsChanged)"
                       "CC"
                       ".C"
                       ".C"
                       ".............."
                       "C");
    const Json fields = follower->fields();
    EXPECT_EQ(fields["mode"], "Host");
    EXPECT_EQ(fields["radio"], "on");
    EXPECT_EQ(fields["transmit_power"], Json());
    EXPECT_EQ(follower->networks()[0]["joined"], true);
    EXPECT_FALSE(follower->failure());
    EXPECT_EQ(follower->next(), kNever);
    EXPECT_FALSE(follower->is_silent(kNever));
}

TEST_F(ClientFollower, AQuestionWithoutAnAnswerMakesItSilentAndWhatAnEarlierDaemonSaysIsNothing)
{
    follow(
        [](PlayedWifi& played, const std::string& request, int count) {
            if (request == "Get Mode" && count == 1) {
                played.leave();
                played.come_back();
                played.refuse("", SD_BUS_ERROR_SERVICE_UNKNOWN);
            } else if (request == "Get AccessPoints") {
                played.say_nothing();
                played.announce("IPAddress", "10.0.0.9");
            }
        },
        [this] { return changes.size() >= 16; });
    EXPECT_EQ(changes,
              ".-.............."); // an answer, it leaves, it is back, all answers but the last, a change
    const auto next = follower->next();
    EXPECT_LE(next, Clock::now() + 2s);
    EXPECT_GT(next, Clock::now());
    EXPECT_FALSE(follower->is_silent(next - 1us));
    EXPECT_TRUE(follower->is_silent(next));
    EXPECT_FALSE(follower->is_complete());
    EXPECT_TRUE(follower->is_running());
    EXPECT_EQ(follower->fields()["address"], "10.0.0.9");
    EXPECT_THAT(wifi->end(), ElementsAreArray(joined({{"Get WiFiState", "Get Mode"}, kPicture})));
}

TEST_F(ClientFollower, ADaemonThatLeavesTakesAllThatIsKnownAlong)
{
    follow(
        [](PlayedWifi& played, const std::string& request, int) {
            if (request == "Get AccessPoints") {
                played.announce_networks(Json::array({{"cafe", 1, -41, true}}));
                played.answer();
                played.leave();
            }
        },
        [this] { return changes.ends_with('-'); });
    EXPECT_EQ(changes, ".............C-");
    EXPECT_FALSE(follower->is_complete());
    EXPECT_EQ(follower->fields()["mode"], Json());
    EXPECT_TRUE(follower->networks().empty());
}

TEST_F(ClientFollower, ADaemonThatIsNotThereIsAFailureUntilItComes)
{
    follow(
        [](PlayedWifi& played, const std::string& request, int count) {
            if (request == "Get WiFiState" && count == 1) {
                played.refuse("", SD_BUS_ERROR_SERVICE_UNKNOWN);
            } else if (request == "Get Mode" && count == 1) {
                played.leave();
                played.come_back();
            }
        },
        [this] { return !changes.empty(); });
    EXPECT_EQ(changes, "-");
    EXPECT_EQ(follower->failure()->status, ExitStatus::Unreachable);
    follower->refresh(); // asks nothing
    EXPECT_TRUE(daemon->get("Mode", Clock::now() + 20s));
    go_on_until([this] { return follower->is_complete(); });
    EXPECT_FALSE(follower->failure());
    EXPECT_THAT(wifi->end(), ElementsAreArray(joined({{"Get WiFiState", "Get Mode"}, kPicture})));
}

} // namespace
