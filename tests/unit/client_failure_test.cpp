#include "client/failure.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "client/connect_progress.hpp"
#include "client/nearest_word.hpp"
#include "client/networks.hpp"
#include "client/output.hpp"
#include "client/passphrase.hpp"
#include "client/properties.hpp"
#include "client/setting_words.hpp"
#include "client/status.hpp"
#include "client/values.hpp"
#include "client/whose_bus.hpp"
#include "client/words.hpp"

namespace {

using client::ConnectProgress;
using client::ExitStatus;
using client::Failure;
using client::Json;
using Phase = client::ConnectProgress::Phase;

Failure failure(const char* name, const char* text, int result)
{
    return client::failure_of_call(name, text, result);
}

TEST(ClientFailure, AnErrorOfTheDaemonIsARefusalWithItsText)
{
    const Failure refused = failure("org.freedesktop.DBus.Error.Failed", "Wifi is off", -EIO);
    EXPECT_EQ(refused.status, ExitStatus::Refused);
    EXPECT_EQ(refused.errorName, "org.freedesktop.DBus.Error.Failed");
    EXPECT_EQ(refused.daemonText, "Wifi is off");
    EXPECT_EQ(failure("org.freedesktop.DBus.Error.AccessDenied", "no", -EACCES).status, ExitStatus::Refused);
    EXPECT_EQ(failure("com.example.Odd", nullptr, -EIO).daemonText, "com.example.Odd");
}

TEST(ClientFailure, AnAbsentDaemonIsUnreachable)
{
    EXPECT_EQ(failure("org.freedesktop.DBus.Error.ServiceUnknown", "x", -EHOSTUNREACH).status,
              ExitStatus::Unreachable);
    EXPECT_EQ(failure("org.freedesktop.DBus.Error.NameHasNoOwner", "x", -ENXIO).status,
              ExitStatus::Unreachable);
}

TEST(ClientFailure, ADaemonThatDiedIsUnreachableAlthoughTheLibraryCallsItATimeOut)
{
    const Failure gone = failure("org.freedesktop.DBus.Error.NoReply", "x", -ETIMEDOUT);
    EXPECT_EQ(gone.status, ExitStatus::Unreachable);
    EXPECT_EQ(gone.errorName, "org.freedesktop.DBus.Error.NoReply");
    EXPECT_EQ(failure("org.freedesktop.DBus.Error.Disconnected", "x", -ECONNRESET).status,
              ExitStatus::Unreachable);
}

TEST(ClientFailure, NoAnswerInTimeIsATimeOut)
{
    EXPECT_EQ(failure("org.freedesktop.DBus.Error.Timeout", "x", -EIO).status, ExitStatus::TimedOut);
    EXPECT_EQ(failure("com.example.Odd", "x", -ETIMEDOUT).status, ExitStatus::TimedOut);
    EXPECT_EQ(failure(nullptr, nullptr, -ETIMEDOUT).status, ExitStatus::TimedOut);
    EXPECT_EQ(client::failure_of_time().status, ExitStatus::TimedOut);
}

TEST(ClientFailure, ABrokenConnectionIsUnreachable)
{
    EXPECT_EQ(failure(nullptr, nullptr, -EIO).status, ExitStatus::Unreachable);
    EXPECT_EQ(failure("com.example.Odd", "x", -ECONNRESET).status, ExitStatus::Unreachable);
    EXPECT_EQ(failure("System.Error.ENOTCONN", "x", -ENOTCONN).status, ExitStatus::Unreachable);
    EXPECT_EQ(client::failure_of_bus(-ENOENT).text,
              "the user bus cannot be reached: No such file or directory");
}

TEST(ClientFailure, ExitStatusesAreTheDocumentedNumbers)
{
    EXPECT_EQ(static_cast<int>(ExitStatus::Done), 0);
    EXPECT_EQ(static_cast<int>(ExitStatus::Refused), 1);
    EXPECT_EQ(static_cast<int>(ExitStatus::Usage), 2);
    EXPECT_EQ(static_cast<int>(ExitStatus::Unreachable), 3);
    EXPECT_EQ(static_cast<int>(ExitStatus::TimedOut), 4);
    EXPECT_EQ(static_cast<int>(ExitStatus::Silent), 5);
}

TEST(ClientWords, TheDaemonsTextIsToldHarmlessly)
{
    EXPECT_EQ(client::told({ExitStatus::Refused, "no", "", ""}), "no");
    EXPECT_EQ(client::told({ExitStatus::Refused, "no", "", "\x1b[2J"}), "no (the daemon: \"\\x1b[2J\")");
}

/** The texts that the page about the D-Bus interface lists for refusals; they are the daemon's own, other
 * tests see to that. */
std::set<std::string> documented_refusals()
{
    std::ifstream page(VANTORA_API_PAGE);
    std::set<std::string> texts;
    constexpr std::string_view kRow = "| `Failed` | \"";
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with(kRow)) {
            texts.insert(line.substr(kRow.size(), line.find('"', kRow.size()) - kRow.size()));
        }
    }
    return texts;
}

TEST(ClientWords, EveryDocumentedRefusalHasAdviceOfItsOwn)
{
    std::set<std::string> texts = documented_refusals();
    // What it means that one does not connect is told by the command; arguments of wrong types are never
    // sent.
    EXPECT_EQ(texts.erase("Failed to connect to AP") + texts.erase("Failed to parse d-bus message"), 2U);
    EXPECT_EQ(texts.size(), 5U);
    std::set<std::string> told;
    for (const std::string& text : texts) {
        const Failure advised = client::with_advice({ExitStatus::Refused, "plain", "name", text});
        EXPECT_NE(advised.text, "plain") << text;
        EXPECT_TRUE(told.insert(advised.text).second) << text;
        EXPECT_EQ(advised.daemonText, text);
        EXPECT_EQ(advised.errorName, "name");
        EXPECT_EQ(advised.status, ExitStatus::Refused);
        EXPECT_EQ(client::with_advice({ExitStatus::TimedOut, "plain", "", text}).text, "plain")
            << "the daemon has refused nothing";
    }
}

TEST(ClientWords, AdviceIsForTheDaemonsWholeTextOnly)
{
    for (const char* text : {"", "else", "Failed to connect to AP", "Wifi is off.", "Wifi is"}) {
        EXPECT_EQ(client::with_advice({ExitStatus::Refused, "plain", "", text}).text, "plain") << text;
    }
}

// No neighbour of the daemon brings these two about, so nothing else sees the words.
TEST(ClientWords, WhatOnlyTestsHaveSeenIsToldToo)
{
    EXPECT_EQ(client::with_advice({ExitStatus::Refused, "plain", "", "Failed to start AP scan"}).text,
              "the scan could not be started; the station may still be starting up");
    EXPECT_EQ(client::with_advice({ExitStatus::Refused, "plain", "", "Failed to add network"}).text,
              "the network could not be set up; try again");
}

TEST(ClientWords, AnAttemptIsEndedByWhatEndsIt)
{
    EXPECT_EQ(client::way_to_end("completed"), "the device stays connected until 'vantora-wifi disconnect'");
    for (const char* state : {"", "scanning", "disconnected", "4way_handshake"}) {
        EXPECT_EQ(client::way_to_end(state),
                  "the device goes on trying until 'vantora-wifi off' or 'vantora-wifi mode host'");
    }
}

TEST(ClientWords, WhatAnAttemptWaitedForInVainFollowsFromTheLastState)
{
    using client::waiting_reason;
    for (const char* state : {"", "scanning", "disconnected"}) {
        EXPECT_EQ(waiting_reason(state, "x"),
                  "no access point of \"x\" that can be joined was found in time");
    }
    for (const char* state : {"authenticating", "associating", "associated"}) {
        EXPECT_EQ(waiting_reason(state, "x"),
                  "an access point of \"x\" was found, but did not let the device in in time");
    }
    for (const char* state : {"4way_handshake", "group_handshake"}) {
        EXPECT_EQ(waiting_reason(state, "x"), "the exchange of keys with \"x\" did not end in time");
    }
    EXPECT_EQ(waiting_reason("completed", "x"),
              "connected to \"x\", but the network gave no address in time");
}

TEST(ClientWords, StatesOnTheWayIntoANetworkAreKnown)
{
    for (const char* state :
         {"scanning", "authenticating", "associating", "associated", "4way_handshake", "group_handshake"}) {
        EXPECT_TRUE(client::is_joining(state)) << state;
    }
    for (const char* state :
         {"", "off", "inactive", "disconnected", "completed", "failed", "interface_disabled"}) {
        EXPECT_FALSE(client::is_joining(state)) << state;
    }
}

TEST(ClientWords, WhatWasWrittenIsToldByWhenItHolds)
{
    using client::Applied;
    using client::Command;
    using client::done_text;
    EXPECT_EQ(done_text(Command::Mode, "Client", Applied::Now), "The device is a station (Client).");
    EXPECT_EQ(
        done_text(Command::Mode, "Host", Applied::WhenOn),
        "Not yet: the radio is off. 'vantora-wifi on' switches it on, and 'vantora-wifi status' then tells "
        "whether the device is an access point (Host).");
    EXPECT_EQ(done_text(Command::Ssid, "x\x1b", Applied::WhenHost),
              "Stored: the access point's name will be \"x\\x1b\" when the device is an access point.");
    EXPECT_EQ(done_text(Command::Band, "5", Applied::Now), "The access point's band is 5 GHz.");
}

TEST(ClientWords, AWriteWithoutEffectIsTold)
{
    using client::Command;
    using client::without_effect;
    EXPECT_NE(without_effect(Command::On, 0U).find("the radio is still off"), std::string::npos);
    EXPECT_NE(without_effect(Command::Off, 1U).find("the radio is still on"), std::string::npos);
    EXPECT_NE(without_effect(Command::Mode, "unknown").find("neither access point nor station"),
              std::string::npos);
    EXPECT_NE(without_effect(Command::Mode, "Host").find("still an access point"), std::string::npos);
    EXPECT_NE(without_effect(Command::Mode, "Client").find("still a station"), std::string::npos);
}

TEST(ClientWords, ModesAreSpelledAsOnTheCommandLine)
{
    EXPECT_EQ(client::word_of_mode("Host"), "host");
    EXPECT_EQ(client::word_of_mode("Client"), "client");
    EXPECT_EQ(client::word_of_mode("unknown"), "unknown");
}

TEST(ClientNearestWord, OneOrTwoMistakesAreForgiven)
{
    const std::vector<std::string> words = {"status", "on",      "off",        "scan",    "ssid",
                                            "mode",   "connect", "disconnect", "monitor", "band"};
    EXPECT_EQ(client::nearest_word("statsu", words), "status");
    EXPECT_EQ(client::nearest_word("staus", words), "status");
    EXPECT_EQ(client::nearest_word("statuss", words), "status");
    EXPECT_EQ(client::nearest_word("conect", words), "connect");
    EXPECT_EQ(client::nearest_word("conecct", words), "connect");
    EXPECT_EQ(client::nearest_word("diconect", words), "disconnect");
    EXPECT_EQ(client::nearest_word("dcionnect", words), "connect");
    EXPECT_EQ(client::nearest_word("of", words), "") << "on and off are as near";
    EXPECT_EQ(client::nearest_word("omd", words), "") << "mode, with two letters in the wrong order, and on";
    EXPECT_EQ(client::nearest_word("statistics", words), "");
    EXPECT_EQ(client::nearest_word("xy", words), "") << "two mistakes make any word of two letters";
    EXPECT_EQ(client::nearest_word("", words), "");
    EXPECT_EQ(client::nearest_word("x", {}), "");
}

TEST(ClientWhoseBus, AnAddressThatSomebodyToldIsNotTheUsersOwn)
{
    using client::is_own_bus;
    EXPECT_TRUE(is_own_bus(nullptr, nullptr, 1000));
    EXPECT_TRUE(is_own_bus("", "/run/user/1000", 1000));
    EXPECT_TRUE(is_own_bus("unix:path=/run/user/1000/bus", "/elsewhere", 1000));
    EXPECT_TRUE(is_own_bus("unix:path=/run/user/1000/bus,guid=0123", nullptr, 1000));
    EXPECT_FALSE(is_own_bus("unix:path=/run/user/10/bus", nullptr, 1000));
    EXPECT_FALSE(is_own_bus("unix:path=/run/user/1000/busy", nullptr, 1000));
    EXPECT_FALSE(is_own_bus("unix:path=/tmp/x/bus", "/run/user/1000", 1000));
    EXPECT_FALSE(is_own_bus(nullptr, "/tmp/x", 1000));
}

TEST(ClientNetworks, TheNetworkJoinedIsFoundByTheDaemonsSpelling)
{
    EXPECT_EQ(client::station_spelling("Café \"x\"\\\033\n\t\r\x7f"),
              "Caf\\xc3\\xa9 \\\"x\\\"\\\\\\e\\n\\t\\r\\x7f");
    EXPECT_EQ(client::station_spelling("a=b"), "a");
    Json networks = Json::array(
        {client::network_value("Café", true, -50, true), client::network_value("free", false, -60, false)});
    client::mark_joined(networks, "Caf\\xc3\\xa9");
    EXPECT_EQ(networks[0]["joined"], true);
    EXPECT_EQ(networks[1]["joined"], false);
    client::mark_joined(networks, "");
    EXPECT_EQ(networks[0]["joined"], false);
}

TEST(ClientNetworks, WhereTheSpellingFitsTwoNoneIsMarked)
{
    Json networks = Json::array(
        {client::network_value("a=1", true, -50, true), client::network_value("a=2", true, -60, true)});
    client::mark_joined(networks, "a");
    EXPECT_EQ(networks[0]["joined"], false);
    EXPECT_EQ(networks[1]["joined"], false);
}

TEST(ClientWords, RefusedWritesAreTold)
{
    using client::Command;
    using client::refused_write_meaning;
    EXPECT_EQ(refused_write_meaning(Command::Off, false),
              "the radio could not be switched; the daemon's log says why");
    EXPECT_EQ(refused_write_meaning(Command::Band, false),
              "the access point could not be restarted with this band, which is stored all the same");
    EXPECT_EQ(refused_write_meaning(Command::Band, true),
              "the device is not an access point at the moment; the band is stored and used when it next is");
    EXPECT_EQ(refused_write_meaning(Command::Ssid, true),
              "the access point could not be restarted with this name, which is stored all the same");
    EXPECT_EQ(refused_write_meaning(Command::Mode, true),
              "the mode could not be changed; it is stored all the same, and tried again at the next start");
}

TEST(ClientProgress, TheStateFromBeforeSaysNothing)
{
    ConnectProgress progress("completed");
    EXPECT_FALSE(progress.polled("completed"));
    EXPECT_EQ(progress.phase(), Phase::Joining);
    EXPECT_EQ(progress.last_state(), "");
}

TEST(ClientProgress, AfterAnotherStateTheSameOneCounts)
{
    ConnectProgress progress("completed");
    EXPECT_TRUE(progress.polled("scanning"));
    EXPECT_TRUE(progress.polled("completed"));
    EXPECT_EQ(progress.phase(), Phase::Joined);
}

TEST(ClientProgress, AnAnnouncementCountsAtOnce)
{
    ConnectProgress progress("completed");
    EXPECT_TRUE(progress.announced("completed"));
    EXPECT_EQ(progress.phase(), Phase::Joined);
    EXPECT_FALSE(progress.polled("completed")) << "no news";
}

TEST(ClientProgress, ALostConnectionIsJoiningAgain)
{
    ConnectProgress progress("");
    progress.announced("completed");
    EXPECT_TRUE(progress.announced("disconnected"));
    EXPECT_EQ(progress.phase(), Phase::Joining);
}

TEST(ClientProgress, FailedIsARefusalAndOffAStop)
{
    ConnectProgress refused("");
    refused.announced("failed");
    EXPECT_EQ(refused.phase(), Phase::Refused);
    ConnectProgress stopped("");
    stopped.polled("off");
    EXPECT_EQ(stopped.phase(), Phase::Stopped);
}

TEST(ClientPassphrase, HasEightToSixtyThreeCharacters)
{
    EXPECT_NE(client::passphrase_fault(""), "");
    EXPECT_NE(client::passphrase_fault("1234567"), "");
    EXPECT_EQ(client::passphrase_fault("12345678"), "");
    EXPECT_EQ(client::passphrase_fault(std::string(63, 'x')), "");
    EXPECT_NE(client::passphrase_fault(std::string(64, 'x')), "");
    EXPECT_NE(client::passphrase_fault("1234567\xff"), "");
}

TEST(ClientJson, IsOneLineOfAsciiWithFieldsInOrder)
{
    EXPECT_EQ(client::json_line({{"b", "é\x1b\x7f\n\u202e"}, {"a", 1}}),
              R"({"a":1,"b":"\u00e9\u001b\u007f\n\u202e"})");
}

TEST(ClientJson, BrokenTextDoesNotBreakTheLine)
{
    EXPECT_EQ(client::json_line({{"a", "\xff"}}), R"({"a":"\ufffd"})");
}

TEST(ClientJson, NetworksHaveStableFields)
{
    EXPECT_EQ(client::json_line(client::network_value("x", true, -60, false)),
              R"({"bars":3,"encrypted":true,"joinable":false,"signal":-60,"ssid":"x","wpa_psk":false})");
    EXPECT_TRUE(client::network_value("x", false, -60, false)["joinable"].get<bool>());
}

TEST(ClientJson, StatusHasEveryFieldWhateverIsMissing)
{
    const Json fields = client::status_fields({{"WiFiState", 0U}, {"Mode", "Host"}, {"Unheard", "x"}});
    EXPECT_EQ(fields.size(), client::known_properties().size());
    EXPECT_EQ(fields["radio"], "off");
    EXPECT_EQ(fields["mode"], "Host");
    EXPECT_TRUE(fields["bands"].is_null());
    EXPECT_EQ(client::status_fields({{"WiFiState", 1U}})["radio"], "on");
}

TEST(ClientStatus, ValuesAreToldInWords)
{
    EXPECT_EQ(client::field_text("bands", Json({"5", "2.4"})), "5, 2.4");
    EXPECT_EQ(client::field_text("bands", Json()), "?");
    EXPECT_EQ(client::field_text("access_point_ready", true), "yes");
    EXPECT_EQ(client::field_text("access_point_ready", false), "not heard of");
    EXPECT_EQ(client::field_text("stations", 3), "3");
    EXPECT_EQ(client::field_text("address", ""), "-");
    EXPECT_EQ(client::field_text("transmit_power", "txpower 20.00 dBm"), "20.00 dBm");
    EXPECT_EQ(client::field_text("client_state", ""), "nothing heard yet");
    EXPECT_EQ(client::field_text("client_state", "unheard_of"), "unheard_of");
    EXPECT_EQ(client::field_text("client_ssid", "\x1b"), "\\x1b");
}

} // namespace
