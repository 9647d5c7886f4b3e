#include "client/failure.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "client/connect_progress.hpp"
#include "client/output.hpp"
#include "client/passphrase.hpp"
#include "client/properties.hpp"
#include "client/status.hpp"
#include "client/values.hpp"
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
    EXPECT_EQ(failure("org.freedesktop.DBus.Error.NoReply", "x", -ETIMEDOUT).status, ExitStatus::Unreachable);
    EXPECT_EQ(failure("org.freedesktop.DBus.Error.Disconnected", "x", -ECONNRESET).status,
              ExitStatus::Unreachable);
}

TEST(ClientFailure, NoAnswerInTimeIsATimeOut)
{
    EXPECT_EQ(failure("org.freedesktop.DBus.Error.Timeout", "x", -ETIMEDOUT).status, ExitStatus::TimedOut);
    EXPECT_EQ(failure(nullptr, nullptr, -ETIMEDOUT).status, ExitStatus::TimedOut);
    EXPECT_EQ(client::failure_of_time().status, ExitStatus::TimedOut);
}

TEST(ClientFailure, ABrokenConnectionIsUnreachable)
{
    EXPECT_EQ(failure(nullptr, nullptr, -ECONNRESET).status, ExitStatus::Unreachable);
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
}

TEST(ClientWords, TheDaemonsTextIsToldHarmlessly)
{
    EXPECT_EQ(client::told({ExitStatus::Refused, "no", "", ""}), "no");
    EXPECT_EQ(client::told({ExitStatus::Refused, "no", "", "\x1b[2J"}), "no (the daemon: \"\\x1b[2J\")");
}

TEST(ClientWords, AdviceFollowsFromTheDaemonsText)
{
    for (const char* text : {"Wifi is off", "WiFi is not in client mode", "WiFi is in unknown mode",
                             "Failed to start AP scan", "Failed to add network"}) {
        const Failure advised = client::with_advice({ExitStatus::Refused, "plain", "", text});
        EXPECT_NE(advised.text, "plain") << text;
        EXPECT_EQ(advised.daemonText, text);
    }
    EXPECT_EQ(client::with_advice({ExitStatus::Refused, "plain", "", "else"}).text, "plain");
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
    EXPECT_EQ(client::field_text("stations", 3), "3");
    EXPECT_EQ(client::field_text("address", ""), "-");
    EXPECT_EQ(client::field_text("transmit_power", "txpower 20.00 dBm"), "20.00 dBm");
    EXPECT_EQ(client::field_text("client_state", ""), "nothing heard yet");
    EXPECT_EQ(client::field_text("client_state", "unheard_of"), "unheard_of");
    EXPECT_EQ(client::field_text("client_ssid", "\x1b"), "\\x1b");
}

} // namespace
