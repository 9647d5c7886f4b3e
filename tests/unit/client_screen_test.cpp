#include "client/screen_model.hpp"

#include <gtest/gtest.h>

#include <clocale>
#include <optional>
#include <string>

#include "client/properties.hpp"
#include "client/screen_view.hpp"
#include "client/text.hpp"

namespace {

using client::draw_screen;
using client::ExitStatus;
using client::Failure;
using client::Json;
using client::network_value;
using client::ScreenAction;
using client::ScreenKey;
using client::ScreenModel;
using client::ScreenState;
using Kind = ScreenKey::Kind;
using Action = ScreenAction::Kind;
using Page = ScreenModel::Page;

ScreenKey letter(const std::string& text)
{
    return {Kind::Text, text};
}

ScreenState station(Json networks, const std::string& state = "inactive")
{
    return {.fields =
                client::status_fields({{"WiFiState", 1U}, {"Mode", "Client"}, {"WiFiClientState", state}}),
            .networks = std::move(networks),
            .running = true,
            .silent = false,
            .complete = true};
}

Json street()
{
    return Json::array({network_value("home", true, -48, true), network_value("free", false, -60, false),
                        network_value("office", true, -70, false)});
}

Failure refused(const std::string& text)
{
    return {ExitStatus::Refused, "the daemon refused", "org.freedesktop.DBus.Error.Failed", text};
}

/** A model of a station with three networks around. */
class ClientScreen : public testing::Test
{
protected:
    ClientScreen()
    {
        std::setlocale(LC_CTYPE, "C.UTF-8");
        model.update(station(street()));
    }
    ~ClientScreen() override { std::setlocale(LC_CTYPE, "C"); }

    ScreenAction press(Kind kind) { return model.press({kind}); }
    ScreenAction press(const std::string& text) { return model.press(letter(text)); }
    void type(const std::string& text)
    {
        for (const char byte : text) {
            press(std::string(1, byte));
        }
    }
    std::string shown(std::size_t rows = 24, std::size_t columns = 80, bool unicode = true) const
    {
        std::string text;
        for (const auto& line : draw_screen(model, rows, columns, unicode)) {
            for (const auto& span : line) {
                text += span.text;
            }
            text += "\n";
        }
        return text;
    }

    ScreenModel model;
};

TEST_F(ClientScreen, ArrowsWalkThroughTheNetworksAndStopAtTheEnds)
{
    EXPECT_EQ(model.chosen(), 0U);
    press(Kind::Up);
    EXPECT_EQ(model.chosen(), 0U);
    press(Kind::Down);
    press("j");
    EXPECT_EQ(model.chosen(), 2U);
    press(Kind::Down);
    EXPECT_EQ(model.chosen(), 2U);
    press("k");
    EXPECT_EQ(model.chosen(), 1U);
    press(Kind::End);
    EXPECT_EQ(model.chosen(), 2U);
    press(Kind::Home);
    EXPECT_EQ(model.chosen(), 0U);
    press(Kind::PageDown);
    EXPECT_EQ(model.chosen(), 2U);
    press(Kind::PageUp);
    EXPECT_EQ(model.chosen(), 0U);
}

TEST_F(ClientScreen, TheNetworkChosenStaysChosenWhereverItIs)
{
    press(Kind::Down);
    model.update(
        station(Json::array({network_value("new", true, -40, true), network_value("home", true, -48, true),
                             network_value("free", false, -60, false)})));
    EXPECT_EQ(model.chosen(), 2U);
    model.update(station(Json::array({network_value("home", true, -48, true)})));
    EXPECT_EQ(model.chosen(), 0U) << "it is gone";
    model.update(station(street()));
    model.update(station(
        Json::array({network_value("new", true, -40, true), network_value("home", true, -48, true)})));
    EXPECT_EQ(model.chosen(), 1U) << "what was chosen in its place stays chosen, too";
    model.update(station(Json::array()));
    EXPECT_EQ(model.chosen(), 0U);
    EXPECT_EQ(press(Kind::Enter).kind, Action::None);
    EXPECT_EQ(press(Kind::Down).kind, Action::None);
}

TEST_F(ClientScreen, AnOpenNetworkIsJoinedAtOnce)
{
    press(Kind::Down);
    const ScreenAction action = press(Kind::Enter);
    EXPECT_EQ(action.kind, Action::Connect);
    EXPECT_EQ(action.ssid, "free");
    EXPECT_EQ(action.passphrase, "");
    EXPECT_EQ(model.page(), Page::Networks);
}

TEST_F(ClientScreen, APassphraseIsAskedForAndShownToNobody)
{
    EXPECT_EQ(press(Kind::Enter).kind, Action::None);
    EXPECT_EQ(model.page(), Page::Passphrase);
    type("quiet harbour q");
    press("ö");
    press("x");
    press(Kind::Backspace);
    EXPECT_EQ(model.typed(), 16U);
    EXPECT_EQ(shown().find("quiet"), std::string::npos);
    EXPECT_NE(shown().find("Passphrase for \"home\": ****************\n"), std::string::npos);
    const ScreenAction action = press(Kind::Enter);
    EXPECT_EQ(action.kind, Action::Connect);
    EXPECT_EQ(action.ssid, "home");
    EXPECT_EQ(action.passphrase, "quiet harbour qö");
    EXPECT_EQ(model.page(), Page::Networks);
    EXPECT_EQ(model.typed(), 0U);
}

TEST_F(ClientScreen, ACharacterIsTakenBackWhole)
{
    press(Kind::Enter);
    press("é");
    press(Kind::Backspace);
    EXPECT_EQ(model.typed(), 0U);
    press(Kind::Backspace);
    type("12345678");
    EXPECT_EQ(press(Kind::Enter).passphrase, "12345678");
}

TEST_F(ClientScreen, WhatCannotBeAPassphraseIsTold)
{
    press(Kind::Enter);
    type("short");
    EXPECT_EQ(press(Kind::Enter).kind, Action::None);
    EXPECT_EQ(model.page(), Page::Passphrase);
    EXPECT_EQ(model.message(), "a passphrase has 8 to 63 characters, this one has 5");
    EXPECT_TRUE(model.is_bad());
    EXPECT_EQ(model.typed(), 0U);
}

TEST_F(ClientScreen, EscapeLeadsBackFromThePassphrase)
{
    press(Kind::Enter);
    type("12345678");
    press(Kind::Escape);
    EXPECT_EQ(model.page(), Page::Networks);
    EXPECT_FALSE(model.is_bad());
    press(Kind::Enter);
    EXPECT_EQ(model.typed(), 0U) << "what was typed before is forgotten";
}

TEST_F(ClientScreen, LettersAreTypedIntoThePassphraseAndDoNothingElse)
{
    press(Kind::Enter);
    for (const char* key : {"q", "d", "m", "r", "?", "o"}) {
        EXPECT_EQ(press(key).kind, Action::None) << key;
    }
    EXPECT_EQ(model.typed(), 6U);
}

TEST_F(ClientScreen, WhatCannotBeJoinedIsToldAtOnce)
{
    press(Kind::End);
    EXPECT_EQ(press(Kind::Enter).kind, Action::None);
    EXPECT_EQ(model.message(), "\"office\" is encrypted in a way that this device cannot join.");
    EXPECT_TRUE(model.is_bad());
}

TEST_F(ClientScreen, LettersDoWhatTheHelpSays)
{
    EXPECT_EQ(press("q").kind, Action::Leave);
    EXPECT_EQ(press("x").kind, Action::None);
    EXPECT_EQ(press("ö").kind, Action::None);
    const ScreenAction scan = press("r");
    EXPECT_EQ(scan.kind, Action::Scan);
    EXPECT_EQ(model.message(), "Looking for networks...");
    model.answered(scan, std::nullopt);
    EXPECT_EQ(model.message(), "Asked for a scan; what it finds appears above.");
    EXPECT_FALSE(model.is_bad());
    const ScreenAction leave = press("d");
    EXPECT_EQ(leave.kind, Action::Disconnect);
    EXPECT_EQ(model.message(), "Leaving the network...");
    model.answered(leave, std::nullopt);
    EXPECT_EQ(model.message(), "Disconnected.");
    EXPECT_FALSE(model.is_bad());
    const ScreenAction mode = press("m");
    EXPECT_EQ(mode.kind, Action::Mode);
    EXPECT_EQ(mode.value, "Host");
    EXPECT_EQ(model.message(), "Becoming an access point...");
    model.answered(mode, std::nullopt);
    EXPECT_EQ(model.message(), "") << "the state says it";
    EXPECT_FALSE(model.is_bad());
    const ScreenAction radio = press("o");
    EXPECT_EQ(radio.kind, Action::Radio);
    EXPECT_EQ(radio.value, 0U);
    EXPECT_EQ(model.message(), "Switching the radio off...");
    EXPECT_FALSE(model.is_bad());
}

TEST_F(ClientScreen, TheModeIsTheOtherOne)
{
    ScreenState host = station(Json::array());
    host.fields["mode"] = "Host";
    host.fields["radio"] = "off";
    model.update(host);
    EXPECT_EQ(press("m").value, "Client");
    EXPECT_EQ(model.message(), "Becoming a station...");
    model.answered({Action::Mode}, std::nullopt);
    EXPECT_EQ(press("o").value, 1U);
    EXPECT_EQ(model.message(), "Switching the radio on...");
}

TEST_F(ClientScreen, OneRequestAtATime)
{
    const ScreenAction scan = press("r");
    EXPECT_EQ(press("m").kind, Action::None);
    press(Kind::Down);
    EXPECT_EQ(press(Kind::Enter).kind, Action::None);
    model.answered(scan, std::nullopt);
    EXPECT_EQ(press("m").kind, Action::Mode);
}

TEST_F(ClientScreen, AQuestionMarkHelpsAndAnyKeyLeadsBack)
{
    press("?");
    EXPECT_EQ(model.page(), Page::Help);
    EXPECT_EQ(press("q").kind, Action::None);
    EXPECT_EQ(model.page(), Page::Networks);
}

TEST_F(ClientScreen, RefusalsAreToldInWords)
{
    const ScreenAction leave = press("d");
    model.answered(leave, refused("Failed to connect to AP"));
    EXPECT_EQ(model.message(), "there is no network to leave: the device is not connected");
    EXPECT_TRUE(model.is_bad());
    press(Kind::Down);
    const ScreenAction join = press(Kind::Enter);
    model.answered(join, refused("Failed to connect to AP"));
    EXPECT_EQ(model.message(), "wpa_supplicant did not take the network, or does not run");
    const ScreenAction again = press(Kind::Enter);
    model.answered(again, refused("Wifi is off"));
    EXPECT_EQ(model.message(), "the radio is off; switch it on with 'vantora-wifi on'");
}

TEST_F(ClientScreen, AnAttemptIsFollowedToItsEnd)
{
    press(Kind::Down);
    model.answered(press(Kind::Enter), std::nullopt);
    EXPECT_EQ(model.message(), "Joining \"free\"...");
    model.update(station(street(), "scanning"));
    EXPECT_EQ(model.message(), "Joining \"free\": looking for the network");
    EXPECT_FALSE(model.is_bad());
    model.update(station(street(), "completed"));
    EXPECT_EQ(model.message(), "Connected to \"free\".");
    EXPECT_FALSE(model.is_bad());
    model.update(station(street(), "disconnected"));
    EXPECT_EQ(model.message(), "Connected to \"free\".") << "the attempt is over";
}

TEST_F(ClientScreen, AWrongPassphraseIsTold)
{
    press(Kind::Enter);
    type("12345678");
    model.answered(press(Kind::Enter), std::nullopt);
    model.update(station(street(), "4way_handshake"));
    model.update(station(street(), "failed"));
    EXPECT_EQ(model.message(), "\"home\" refused the passphrase.");
    EXPECT_TRUE(model.is_bad());
}

TEST_F(ClientScreen, AnAttemptIsForgottenWithTheNetworkTheModeAndTheRadio)
{
    for (const Action ended : {Action::Disconnect, Action::Mode, Action::Radio}) {
        press(Kind::Down);
        model.answered(press(Kind::Enter), std::nullopt);
        EXPECT_TRUE(model.is_joining());
        model.answered({ended}, std::nullopt);
        EXPECT_FALSE(model.is_joining());
        press(Kind::Home);
    }
    press(Kind::Down);
    model.answered(press(Kind::Enter), std::nullopt);
    model.update(station(street(), "off"));
    EXPECT_EQ(model.message(), "The device is not a station any more.");
    EXPECT_TRUE(model.is_bad());
    EXPECT_FALSE(model.is_joining());
}

TEST_F(ClientScreen, ADaemonThatIsGoneOrSilentIsToldAndAskedNothing)
{
    ScreenState gone = station(Json::array());
    gone.running = false;
    model.update(gone);
    EXPECT_EQ(model.message(), "The daemon is not running; waiting for it.");
    EXPECT_TRUE(model.is_bad());
    EXPECT_EQ(press("r").kind, Action::None);
    ScreenState silent = station(street());
    silent.silent = true;
    model.update(silent);
    EXPECT_EQ(model.message(), "The daemon does not answer; waiting for it.");
    EXPECT_TRUE(model.is_bad());
    press("m");
    EXPECT_EQ(model.message(), "Becoming an access point...") << "it has something to do";
    EXPECT_FALSE(model.is_bad());
}

TEST_F(ClientScreen, ASecondAttemptThatFailsLikeTheFirstIsTold)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        press(Kind::Enter);
        type("12345678");
        const ScreenAction action = press(Kind::Enter);
        EXPECT_FALSE(model.is_joining());
        model.answered(action, std::nullopt);
        EXPECT_TRUE(model.is_joining());
        model.update(station(street(), "4way_handshake"));
        model.update(station(street(), "failed"));
        EXPECT_EQ(model.message(), "\"home\" refused the passphrase.");
        EXPECT_FALSE(model.is_joining());
    }
}

TEST(ClientScreenBeginning, NothingIsKnownAndEverythingCanBePressed)
{
    ScreenModel model;
    EXPECT_EQ(draw_screen(model, 24, 80, true).size(), 24U);
    for (const char* key : {"j", "k", "?", "x"}) {
        EXPECT_EQ(model.press(letter(key)).kind, Action::None);
    }
    EXPECT_EQ(model.press({Kind::Enter}).kind, Action::None);
}

// The view

TEST_F(ClientScreen, EveryWindowIsFilledAndNeverOverfilled)
{
    for (const auto& page : {"", "?"}) {
        if (*page != '\0') {
            press(page);
        }
        for (std::size_t rows = 0; rows < 40; ++rows) {
            for (const std::size_t columns : {0U, 1U, 2U, 5U, 20U, 80U, 200U}) {
                const auto lines = draw_screen(model, rows, columns, true);
                ASSERT_EQ(lines.size(), rows);
                for (const auto& line : lines) {
                    std::size_t width = 0;
                    for (const auto& span : line) {
                        width += client::display_width(span.text);
                    }
                    ASSERT_LE(width, columns) << rows << " rows";
                }
            }
        }
    }
}

/** What a screen looks like, with its styles: "*a*" a heading, "+a+" good, "!a!" bad, "~a~" faint;
 * inverse parts stand in "[]", and each line ends with "|". */
std::string drawn(const ScreenModel& model, std::size_t rows, std::size_t columns)
{
    std::string text;
    for (const auto& line : draw_screen(model, rows, columns, true)) {
        for (const auto& span : line) {
            const std::string mark(1, " *+!~"[static_cast<int>(span.style)]);
            const std::string styled = mark == " " ? span.text : mark + span.text + mark;
            text += span.inverse ? "[" + styled + "]" : styled;
        }
        text += "|\n";
    }
    return text;
}

TEST_F(ClientScreen, LooksLikeThisAtFirstAndWithoutADaemon)
{
    EXPECT_EQ(drawn(ScreenModel(), 6, 20), R"([* vantora-wifi       *]|
|
~~|
|
+ +|
[ Enter join  d disco]|
)");
    model.update({.running = true});
    EXPECT_EQ(drawn(model, 7, 20), R"([* vantora-wifi       *]|
~Asking the daemon...~|
|
~~|
|
+ +|
[ Enter join  d disco]|
)");
    model.update({.running = false});
    EXPECT_EQ(drawn(model, 6, 20), R"([* vantora-wifi       *]|
|
~~|
|
! The daemon is not r!|
[ Enter join  d disco]|
)");
}

TEST_F(ClientScreen, LooksLikeThisAsAStation)
{
    Json networks = street();
    networks[1]["joined"] = true;
    networks.push_back(network_value("yard", true, -85, true));
    networks.push_back(network_value("far", true, -123456, true));
    model.update(station(networks));
    press(Kind::Down);
    EXPECT_EQ(drawn(model, 17, 60), R"([* vantora-wifi                                               *]|
*Radio           *+on+|
*Mode            *Client (station)|
*Bands           *?|
*Network         *?|
*State           *inactive (no network to look for)|
*Address         *?|
*MAC address     *?|
*Transmit power  *?|
|
+  ▂▄▆█+    -48  🔒 home|
[+> ▂▄▆·+][    -60     free  (joined)                            ]|
  ▂▄··~    -70  ✗  office~|
  ▂···    -85  🔒 yard|
!  ····!  -123456  🔒 far|
+ +|
[ Enter join  d disconnect  m mode  r scan  ? help  q quit   ]|
)");
    EXPECT_EQ(drawn(model, 8, 20), R"([* vantora-wifi       *]|
*Radio           *+on+|
*Mode            *Clie|
|
+  ▂▄▆█+    -48  🔒 ho|
[+> ▂▄▆·+][    -60     fr]|
+ +|
[ Enter join  d disco]|
)");
    EXPECT_EQ(drawn(model, 5, 9), R"([* vantora-*]|
|
[+> ▂▄▆·+][   ]|
+ +|
[ Enter jo]|
)");
    EXPECT_EQ(drawn(model, 3, 20), R"([* vantora-wifi       *]|
+ +|
[ Enter join  d disco]|
)");
    EXPECT_EQ(drawn(model, 2, 20), R"(+ +|
[ Enter join  d disco]|
)");
    model.update(station(Json::array()));
    EXPECT_EQ(drawn(model, 6, 60), R"([* vantora-wifi                                               *]|
|
~No networks in range; r looks for some.~|
|
+ +|
[ Enter join  d disconnect  m mode  r scan  ? help  q quit   ]|
)");
}

TEST_F(ClientScreen, TheNetworkChosenIsMarkedToTheEdgeAlsoWhereAWideCharacterIsCut)
{
    model.update(station(Json::array({network_value("喫茶店", true, -48, true)})));
    EXPECT_EQ(drawn(model, 5, 23), R"([* vantora-wifi          *]|
|
[+> ▂▄▆█+][    -48  🔒 喫茶 ]|
+ +|
[ Enter join  d disconne]|
)");
}

TEST_F(ClientScreen, LooksLikeThisAsAnAccessPoint)
{
    ScreenState host = {.fields =
                            client::status_fields({{"WiFiState", 0U}, {"Mode", "Host"}, {"SSID", "home"}})};
    model.update(host);
    EXPECT_EQ(drawn(model, 9, 72),
              R"([* vantora-wifi                                                           *]|
*Radio           *!off!|
*Mode            *Host (access point)|
*SSID            *home|
|
~~|
|
+ +|
[ Enter join  d disconnect  m mode  r scan  ? help  q quit               ]|
)");
    host.complete = true;
    model.update(host);
    EXPECT_EQ(drawn(model, 16, 72),
              R"([* vantora-wifi                                                           *]|
*Radio           *!off!|
*Mode            *Host (access point)|
*SSID            *home|
*Band            *?|
*Bands           *?|
*On the air      *?|
*Stations        *?|
*Address         *?|
*MAC address     *?|
*Transmit power  *?|
|
~An access point does not look for networks; m makes the device a station~|
|
+ +|
[ Enter join  d disconnect  m mode  r scan  ? help  q quit               ]|
)");
}

TEST_F(ClientScreen, HelpLooksLikeThis)
{
    press("?");
    EXPECT_EQ(drawn(model, 16, 72),
              R"([* vantora-wifi                                                           *]|
*Keys*|
|
*Up, Down, k, j  *choose a network|
*Enter           *join it; asks for the passphrase where it wants one|
*d               *leave the network|
*m               *become a station, or an access point|
*o               *switch the radio on or off|
*r               *look for networks|
*q               *leave; Ctrl-Z leaves for a while|
|
Everything here can be had by sub-commands, too: vantora-wifi --help|
~Any key leads back.~|
|
+ +|
[ any key back                                                           ]|
)");
    EXPECT_EQ(drawn(model, 5, 72),
              R"([* vantora-wifi                                                           *]|
*Keys*|
|
+ +|
[ any key back                                                           ]|
)");
    EXPECT_EQ(drawn(model, 4, 20), R"([* vantora-wifi       *]|
*Keys*|
+ +|
[ any key back       ]|
)");
}

TEST_F(ClientScreen, APassphraseIsAskedForLikeThis)
{
    press(Kind::Enter);
    type("12345");
    EXPECT_EQ(drawn(model, 8, 72),
              R"([* vantora-wifi                                                           *]|
*Radio           *+on+|
*Mode            *Client (station)|
|
Passphrase for "home": *****|
~Enter joins, Esc leads back.~|
+ +|
[ Enter join  Esc back                                                   ]|
)");
    press(Kind::Enter);
    EXPECT_EQ(drawn(model, 8, 72),
              R"([* vantora-wifi                                                           *]|
*Radio           *+on+|
*Mode            *Client (station)|
|
Passphrase for "home": |
~Enter joins, Esc leads back.~|
! a passphrase has 8 to 63 characters, this one has 5!|
[ Enter join  Esc back                                                   ]|
)");
}

TEST_F(ClientScreen, ATerminalWithoutUnicodeHasSignsOfItsOwn)
{
    const std::string ascii = shown(24, 80, false);
    EXPECT_NE(ascii.find("> ####    -48  *  home"), std::string::npos) << ascii;
    EXPECT_NE(ascii.find("  ##..    -70  x  office\n"), std::string::npos) << ascii;
}

TEST_F(ClientScreen, TheNetworkChosenIsAlwaysShown)
{
    Json many = Json::array();
    for (int number = 0; number < 100; ++number) {
        many.push_back(network_value("net " + std::to_string(number), false, -40, false));
    }
    model.update(station(many));
    for (int step = 0; step < 99; ++step) {
        press(Kind::Down);
        ASSERT_NE(shown(12).find("net " + std::to_string(step + 1) + " "), std::string::npos) << step;
    }
}

TEST_F(ClientScreen, NamesFromTheAirAreHarmless)
{
    model.update(station(Json::array({network_value("\x1b[2J\u202eevil\n", true, -48, true)})));
    const std::string text = shown();
    EXPECT_NE(text.find("\\x1b[2J\\u{202e}evil\\n"), std::string::npos) << text;
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
    press(Kind::Enter);
    EXPECT_NE(shown().find("Passphrase for \"\\x1b[2J\\u{202e}evil\\n\": "), std::string::npos);
    press(Kind::Escape);
    model.tell("\x1b]0;title\x07", false);
    EXPECT_EQ(shown().find('\x1b'), std::string::npos);
}

TEST(ClientFitted, NoCharacterIsCut)
{
    std::setlocale(LC_CTYPE, "C.UTF-8");
    EXPECT_EQ(client::fitted("喫茶店", 5), "喫茶");
    EXPECT_EQ(client::fitted("a\u0301b", 1), "a\u0301");
    EXPECT_EQ(client::fitted("abc", 0), "");
    EXPECT_EQ(client::fitted("abc", 9), "abc");
    EXPECT_EQ(client::fitted("\xff\xffx", 2), "\xff\xff") << "a byte that is no text has a column";
    std::setlocale(LC_CTYPE, "C");
}

} // namespace
