// What the client does to join a network and to leave it: what it asks the daemon, in which order, and what
// it says.

#include "client/commands.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "client/daemon_names.hpp"
#include "support/captured_output.hpp"
#include "support/played_wifi.hpp"
#include "support/private_bus.hpp"
#include "support/temp_folder.hpp"

namespace {

using namespace std::chrono_literals;
using client::Arguments;
using client::ExitStatus;
using client::Failure;
using client::Json;
using client::PassphraseSource;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing_support::CapturedOutput;
using testing_support::PlayedWifi;
using testing_support::PrivateBus;
using testing_support::TempFolder;
using Requests = std::vector<std::string>;

const Json kSecured = {"secured", 1, -50, true};
const Json kOpen = {"free", 0, -60, false};
const Json kOther = {"office", 1, -70, false};

/** What a command made of it. */
struct Outcome
{
    std::optional<Failure> failure;
    std::string text;
    Requests requests;
};

class ClientJoining : public testing::Test
{
protected:
    /** Has the command done while the daemon plays what the script says. */
    Outcome run(client::CommandFunction* command, const Arguments& arguments, PlayedWifi::Script script = {})
    {
        PlayedWifi wifi(bus, properties, std::move(script));
        Outcome outcome;
        auto daemon = client::Daemon::connect(client::Clock::now() + 20s);
        {
            const CapturedOutput captured;
            client::Output output(arguments.json);
            outcome.failure = command(*daemon.value(), arguments, output);
            outcome.text = captured.text();
        }
        outcome.requests = wifi.end();
        return outcome;
    }

    /** Chooses a network, and joins it without a question for a passphrase. */
    Outcome choose(const std::string& name, PlayedWifi::Script script = {})
    {
        Arguments arguments;
        arguments.value = name;
        arguments.passphrase = PassphraseSource::None;
        return run(client::run_connect, arguments, std::move(script));
    }

    /** Joins the open network without looking for it. */
    Outcome join(PlayedWifi::Script script, bool json = false)
    {
        Arguments arguments;
        arguments.value = "free";
        arguments.json = json;
        arguments.passphrase = PassphraseSource::None;
        arguments.force = true;
        return run(client::run_connect, arguments, std::move(script));
    }

    PrivateBus bus{testing_support::BusRole::User};
    Json properties = {{"AccessPoints", {kOpen, kSecured, kOther}}};
};

/** Ends every attempt as soon as it has been begun. */
void refuse_to_join(PlayedWifi& wifi, const std::string& request, int)
{
    if (request.starts_with("Connect")) {
        wifi.refuse("No");
    }
}

// What to join

TEST_F(ClientJoining, WhatCannotBeJoinedAsWantedIsRefusedBeforeTheDaemonIsAskedTo)
{
    const TempFolder folder;
    folder.write("long", std::string(5000, 'x') + "\n");
    const std::string isOpen =
        "\"free\" is open where the device is: it takes no passphrase, and may be another network than you "
        "think; --open joins it, --force tries with the passphrase";
    struct Unsuitable
    {
        std::string name;
        PassphraseSource passphrase;
        std::string file;
        std::string text;
    };
    for (const auto& [name, passphrase, file, text] : std::vector<Unsuitable>{
             {"office", PassphraseSource::File, "",
              "\"office\" is encrypted in a way that this device cannot join"},
             {"free", PassphraseSource::File, "", isOpen},
             {"free", PassphraseSource::StandardInput, "", isOpen},
             {"secured", PassphraseSource::None, "",
              "\"secured\" wants a passphrase; --force tries without one"},
             {"secured", PassphraseSource::File, "/nonexistent", "/nonexistent: No such file or directory"},
             {"secured", PassphraseSource::File, "/", "/ cannot be read: Is a directory"},
             {"secured", PassphraseSource::File, folder.file("long"),
              "a passphrase has 8 to 63 characters, this one has 4097"},
         }) {
        Arguments arguments;
        arguments.value = name;
        arguments.passphrase = passphrase;
        arguments.passphraseFile = file;
        const auto [failure, said, requests] = run(client::run_connect, arguments);
        ASSERT_TRUE(failure) << text;
        EXPECT_EQ(failure->text, text);
        EXPECT_EQ(said, "");
        EXPECT_THAT(requests, ElementsAre("Get WiFiState", "Get Mode", "Get AccessPoints", "Get ClientSSID"));
    }
}

TEST_F(ClientJoining, TheFirstLineOfAFileIsThePassphrase)
{
    const TempFolder folder;
    for (const char* const text : {"secret12", "secret12\n", "secret12\r\nmore", "secret12\n\r"}) {
        folder.write("passphrase", text);
        Arguments arguments;
        arguments.value = "secured";
        arguments.passphrase = PassphraseSource::File;
        arguments.passphraseFile = folder.file("passphrase");
        EXPECT_EQ(run(client::run_connect, arguments, refuse_to_join).requests.back(),
                  "Connect secured secret12");
    }
}

TEST_F(ClientJoining, AnOpenNetworkIsJoinedWithoutAPassphrase)
{
    Arguments arguments;
    arguments.value = "free";
    EXPECT_THAT(run(client::run_connect, arguments, refuse_to_join).requests,
                ElementsAre("Get WiFiState", "Get Mode", "Get AccessPoints", "Get ClientSSID",
                            "Get WiFiClientState", "Connect free "));
}

TEST_F(ClientJoining, WhatIsNotKnownIsLookedForOnce)
{
    for (const bool found : {true, false}) {
        properties["AccessPoints"] = Json::array();
        const auto [failure, text, requests] =
            choose("free", [found](PlayedWifi& wifi, const std::string& request, int count) {
                if (request == "Connect free ") {
                    wifi.emit(client::kProperties, "PropertiesChanged", [](sd_bus_message*) {});
                }
                refuse_to_join(wifi, request, count);
                if (request == "Scan") {
                    wifi.answer();
                    wifi.announce_networks(Json::array({found ? kOpen : kSecured}));
                }
            });
        Requests expected = {"Get WiFiState", "Get Mode",         "Get AccessPoints", "Get ClientSSID",
                             "Scan",          "Get AccessPoints", "Get ClientSSID"};
        if (found) {
            expected.insert(expected.end(), {"Get WiFiClientState", "Connect free "});
        }
        EXPECT_THAT(requests, ElementsAreArray(expected));
        // What is announced is heard once, although it is followed once more.
        EXPECT_EQ(text, found ? "Connecting to \"free\"\n"
                                "vantora-wifi: a signal of the daemon cannot be read and is passed over: "
                                "PropertiesChanged\n"
                              : "");
        EXPECT_EQ(failure->text,
                  found ? "the daemon refused"
                        : "\"free\" is not in range; with --hidden (it does not tell its name) or "
                          "--force the device tries all the same");
    }
}

TEST_F(ClientJoining, AListThatTheDaemonDoesNotTellIsAFailure)
{
    const auto [failure, text, requests] =
        choose("free", [](PlayedWifi& wifi, const std::string& request, int) {
            if (request == "Get AccessPoints") {
                wifi.refuse("No");
            }
        });
    EXPECT_EQ(failure->daemonText, "No");
    EXPECT_EQ(requests.back(), "Get AccessPoints");
}

/** Stands in for what is typed. */
class Typed
{
public:
    explicit Typed(const std::string& text) : text_(text), before_(std::cin.rdbuf(text_.rdbuf())) {}
    Typed(const Typed&) = delete;
    Typed& operator=(const Typed&) = delete;
    ~Typed()
    {
        std::cin.rdbuf(before_);
        std::cin.clear();
    }

private:
    std::istringstream text_;
    std::streambuf* before_;
};

TEST_F(ClientJoining, WithoutANameOneOfThoseThatCanBeJoinedIsPicked)
{
    const std::string list = "     SIGNAL  DBM  SECURITY  NETWORK\n"
                             "  1  ###.    -60  open      free\n"
                             "  2  ####    -50  WPA-PSK   secured\n";
    const std::string question = "Network (1 to 2): ";
    struct Answer
    {
        std::string typed;
        int asked;
        std::string failure;
    };
    for (const auto& [typed, asked, text] : std::vector<Answer>{
             {"0\n3\nx\n1x\n1\n", 5, "the daemon refused"},
             {"2\n", 1, "\"secured\" wants a passphrase; --force tries without one"},
             {"\n1\n", 1, "no network was chosen"},
             {"", 1, "no network was chosen"},
         }) {
        const Typed standsIn(typed);
        const auto [failure, said, requests] =
            choose("", [](PlayedWifi& wifi, const std::string& request, int count) {
                refuse_to_join(wifi, request, count);
                if (request == "Scan") {
                    wifi.answer();
                    wifi.announce_networks({kOpen, kSecured, kOther});
                }
            });
        std::string expected = list;
        for (int count = 0; count < asked; ++count) {
            expected += question;
        }
        EXPECT_EQ(said.substr(0, said.find("Connecting")), expected);
        EXPECT_EQ(failure->text, text);
        EXPECT_EQ(requests.back() == "Connect free ", asked == 5);
    }
}

TEST_F(ClientJoining, WhereNothingCanBeJoinedNobodyIsAsked)
{
    const auto [failure, text, requests] = choose("", [](PlayedWifi& wifi, const std::string& request, int) {
        if (request == "Scan") {
            wifi.answer();
            wifi.announce_networks(Json::array({kOther}));
        }
    });
    EXPECT_EQ(failure->text, "there is no network in range that can be joined");
    EXPECT_EQ(text, "");
}

// The attempt

/** Everything that may come on the way to the address, and what is none of this attempt's business. */
void let_in(PlayedWifi& wifi, const std::string& request, int count)
{
    if (request == "Connect free ") {
        wifi.announce("WiFiClientState", "failed"); // of an earlier attempt
        wifi.answer();
        wifi.announce("WiFiClientState", "associating");
        wifi.announce("IPAddress", "failed");
        wifi.emit(client::kProperties, "PropertiesChanged", [](sd_bus_message* signal) {
            sd_bus_message_append(signal, "sa{sv}as", "com.example.Other", 1, "WiFiClientState", "s",
                                  "failed", 0);
        });
        wifi.emit(client::kProperties, "PropertiesChanged",
                  [](sd_bus_message* signal) { sd_bus_message_append(signal, "u", 7U); });
        wifi.announce("WiFiClientState", "odd");
        wifi.properties["WiFiClientState"] = "completed";
        wifi.properties["IPAddress"] = "";
    } else if (request == "Get IPAddress" && count == 2) {
        wifi.properties["IPAddress"] = "10.0.0.3";
    }
}

TEST_F(ClientJoining, EveryStepIsShownUpToTheAddress)
{
    const auto [failure, text, requests] = join(let_in);
    EXPECT_FALSE(failure);
    EXPECT_EQ(text,
              "Connecting to \"free\"\n"
              "  associating       asking the access point to be let in\n"
              "vantora-wifi: a signal of the daemon cannot be read and is passed over: PropertiesChanged\n"
              "  odd             \n"
              "  completed         connected\n"
              "Connected to \"free\", address 10.0.0.3\n");
    EXPECT_THAT(requests, ElementsAre("Get WiFiState", "Get Mode", "Get WiFiClientState", "Connect free ",
                                      "Get WiFiClientState", "Get IPAddress", "Get IPAddress"));
}

TEST_F(ClientJoining, EveryStepIsAnObjectForPrograms)
{
    EXPECT_EQ(
        join(let_in, true).text,
        R"({"ssid":"free","type":"connecting"})"
        "\n"
        R"({"state":"associating","type":"state"})"
        "\n"
        R"({"text":"a signal of the daemon cannot be read and is passed over: PropertiesChanged","type":"warning"})"
        "\n"
        R"({"state":"odd","type":"state"})"
        "\n"
        R"({"state":"completed","type":"state"})"
        "\n"
        R"({"address":"10.0.0.3","ssid":"free","type":"connected"})"
        "\n");
}

TEST_F(ClientJoining, WhatEndsTheAttemptIsTold)
{
    using Happens = void (*)(PlayedWifi&);
    struct Ending
    {
        const char* request;
        int count;
        Happens happens;
        ExitStatus status;
        const char* text;
    };
    for (const Ending& ending : std::vector<Ending>{
             {"Get WiFiClientState", 2,
              [](PlayedWifi& wifi) { wifi.properties["WiFiClientState"] = "failed"; }, ExitStatus::Refused,
              "\"free\" refused the passphrase"},
             {"Get WiFiClientState", 2, [](PlayedWifi& wifi) { wifi.announce("WiFiClientState", "off"); },
              ExitStatus::Refused,
              "the device stopped being a station in the middle of this: the radio or the mode was switched"},
             {"Get WiFiClientState", 2, [](PlayedWifi& wifi) { wifi.refuse("No"); }, ExitStatus::Refused,
              "the daemon refused"},
             {"Get WiFiClientState", 2, [](PlayedWifi& wifi) { wifi.leave(); }, ExitStatus::Unreachable,
              "the daemon has left the bus in the middle of this"},
             {"Connect free ", 1,
              [](PlayedWifi& wifi) {
                  wifi.leave();
                  wifi.say_nothing();
              },
              ExitStatus::Unreachable, "the daemon has left the bus in the middle of this"},
             {"Connect free ", 1, [](PlayedWifi& wifi) { wifi.refuse("Wifi is off"); }, ExitStatus::Refused,
              "the radio is off; switch it on with 'vantora-wifi on'"},
             {"Get WiFiClientState", 1, [](PlayedWifi& wifi) { wifi.refuse("No"); }, ExitStatus::Refused,
              "the daemon refused"},
             {"Get Mode", 1, [](PlayedWifi& wifi) { wifi.properties["Mode"] = 1U; }, ExitStatus::Refused,
              "the daemon's answer cannot be read"},
         }) {
        const auto failure = join([&](PlayedWifi& wifi, const std::string& request, int count) {
                                 if (request == ending.request && count == ending.count) {
                                     ending.happens(wifi);
                                 }
                             }).failure;
        ASSERT_TRUE(failure) << ending.text;
        EXPECT_EQ(failure->status, ending.status);
        EXPECT_EQ(failure->text, ending.text);
    }
}

TEST_F(ClientJoining, AStationThatDoesNotTakeANetworkYetIsAskedAgain)
{
    const auto [failure, text, requests] = join([](PlayedWifi& wifi, const std::string& request, int count) {
        if (request != "Connect free ") {
            return;
        }
        if (count == 1) {
            wifi.refuse("Failed to connect to AP");
        } else if (count == 2) {
            wifi.emit(client::kInterface, "AccessPointsChanged", [](sd_bus_message*) {});
            wifi.emit(client::kProperties, "PropertiesChanged", [](sd_bus_message*) {});
            wifi.refuse("Failed to add network");
        } else {
            wifi.answer();
            wifi.announce("WiFiClientState", "off");
        }
    });
    EXPECT_EQ(text,
              "Connecting to \"free\"\n"
              "  waiting           the station does not take the network yet\n"
              "vantora-wifi: a signal of the daemon cannot be read and is passed over: PropertiesChanged\n"
              "  off               not a station, or the radio is off\n");
    EXPECT_EQ(std::ranges::count(requests, "Connect free "), 3);
    EXPECT_EQ(failure->text,
              "the device stopped being a station in the middle of this: the radio or the mode "
              "was switched");
}

volatile std::sig_atomic_t raised = 0;

TEST_F(ClientJoining, ASignalEndsTheWaitingAndTheProgramAsItWouldHave)
{
    const auto before = std::signal(SIGTERM, [](int number) { raised = number; });
    for (const auto& when : {std::pair{"Get WiFiClientState", 2}, std::pair{"Connect free ", 1}}) {
        raised = 0;
        const auto [failure, text, requests] =
            join([when](PlayedWifi& wifi, const std::string& request, int count) {
                if (request == when.first && count == when.second) {
                    wifi.say_nothing();
                    ::kill(::getpid(), SIGTERM);
                }
            });
        EXPECT_FALSE(failure);
        EXPECT_EQ(raised, SIGTERM);
        EXPECT_EQ(text,
                  "Connecting to \"free\"\n"
                  "vantora-wifi: the device goes on trying until 'vantora-wifi off' or 'vantora-wifi mode "
                  "host'\n");
        EXPECT_EQ(requests.back(), when.first);
    }
    std::signal(SIGTERM, before);
}

// Without a command

TEST_F(ClientJoining, RequestsOfEveryKindReachTheDaemonAndTheirRefusalsComeBack)
{
    PlayedWifi wifi(bus, properties, [](PlayedWifi& played, const std::string& request, int count) {
        if (count == 2) {
            played.refuse("No " + request);
        }
    });
    const auto daemon = client::Daemon::connect(client::Clock::now() + 20s);
    const auto deadline = client::Clock::now() + 20s;
    std::vector<std::string> refusals;
    int answered = 0;
    const auto done = [&](const std::optional<Failure>& failure) {
        ++answered;
        refusals.push_back(failure ? failure->daemonText : "");
    };
    for (int count = 0; count < 2; ++count) {
        done(daemon.value()->set("Mode", 's', "Host", deadline));
        done(daemon.value()->set("WiFiState", 'u', 0U, deadline));
        daemon.value()->set_later("SSID", 's', "Hallway", done, deadline);
        daemon.value()->call_later("Connect", {"cafe", "secret12"}, done, deadline);
        while (answered < 4 * (count + 1) && client::Clock::now() < deadline) {
            EXPECT_FALSE(daemon.value()->step(deadline));
        }
    }
    const Requests expected = {"Set Mode Host", "Set WiFiState 0", "Set SSID Hallway",
                               "Connect cafe secret12"};
    EXPECT_THAT(refusals, ElementsAre("", "", "", "", "No " + expected[0], "No " + expected[1],
                                      "No " + expected[2], "No " + expected[3]));
    Requests twice = expected;
    twice.insert(twice.end(), expected.begin(), expected.end());
    EXPECT_THAT(wifi.end(), ElementsAreArray(twice));
}

// Leaving

TEST_F(ClientJoining, LeavingIsConfirmed)
{
    Arguments arguments;
    const auto [failure, text, requests] = run(client::run_disconnect, arguments);
    EXPECT_FALSE(failure);
    EXPECT_EQ(text, "Disconnected.\n");
    EXPECT_THAT(requests, ElementsAre("Disconnect"));
    arguments.json = true;
    EXPECT_EQ(run(client::run_disconnect, arguments).text,
              R"({"applied":true,"command":"disconnect","type":"done"})"
              "\n");
}

TEST_F(ClientJoining, WhatCannotBeLeftIsToldByTheState)
{
    const std::string none = "there is no network to leave: the device is not connected";
    struct Refusal
    {
        const char* state;
        const char* daemonText;
        std::string text;
    };
    for (const Refusal& refusal : std::vector<Refusal>{
             {"inactive", "Failed to connect to AP", none},
             {nullptr, "Failed to connect to AP", none},
             {"scanning", "Failed to connect to AP",
              "the device is still trying to join a network, which cannot be left before that is done; "
              "'vantora-wifi off' or 'vantora-wifi mode host' ends the attempt"},
             {"scanning", "Wifi is off", "the radio is off; switch it on with 'vantora-wifi on'"},
         }) {
        properties["WiFiClientState"] = refusal.state != nullptr ? refusal.state : "";
        const auto failure =
            run(client::run_disconnect, {}, [&](PlayedWifi& wifi, const std::string& request, int) {
                if (request == "Disconnect") {
                    wifi.refuse(refusal.daemonText);
                } else if (refusal.state == nullptr) {
                    wifi.refuse("No");
                }
            }).failure;
        ASSERT_TRUE(failure) << refusal.text;
        EXPECT_EQ(failure->text, refusal.text);
        EXPECT_EQ(failure->daemonText, refusal.daemonText);
    }
}

} // namespace
