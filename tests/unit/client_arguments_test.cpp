#include "client/arguments.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <variant>
#include <vector>

namespace {

using namespace std::chrono_literals;
using client::Arguments;
using client::Command;
using client::EarlyEnd;
using client::parse_arguments;
using client::PassphraseSource;

std::variant<Arguments, EarlyEnd> parse(std::vector<const char*> words, bool terminal = false)
{
    words.insert(words.begin(), "vantora-wifi");
    return parse_arguments(static_cast<int>(words.size()), words.data(), terminal);
}

Arguments parsed(const std::vector<const char*>& words)
{
    const auto result = parse(words);
    EXPECT_TRUE(std::holds_alternative<Arguments>(result)) << std::get<EarlyEnd>(result).text;
    return std::holds_alternative<Arguments>(result) ? std::get<Arguments>(result) : Arguments{};
}

EarlyEnd ended(const std::vector<const char*>& words)
{
    const auto result = parse(words);
    EXPECT_TRUE(std::holds_alternative<EarlyEnd>(result));
    return std::holds_alternative<EarlyEnd>(result) ? std::get<EarlyEnd>(result) : EarlyEnd{};
}

TEST(ClientArguments, EverySubCommandIsKnown)
{
    EXPECT_EQ(parsed({"status"}).command, Command::Status);
    EXPECT_EQ(parsed({"on"}).command, Command::On);
    EXPECT_EQ(parsed({"off"}).command, Command::Off);
    EXPECT_EQ(parsed({"mode", "host"}).command, Command::Mode);
    EXPECT_EQ(parsed({"band", "5"}).command, Command::Band);
    EXPECT_EQ(parsed({"ssid", "x"}).command, Command::Ssid);
    EXPECT_EQ(parsed({"scan"}).command, Command::Scan);
    EXPECT_EQ(parsed({"connect", "x"}).command, Command::Connect);
    EXPECT_EQ(parsed({"disconnect"}).command, Command::Disconnect);
    EXPECT_EQ(parsed({"monitor"}).command, Command::Monitor);
}

TEST(ClientArguments, DefaultsArePeopleAMinuteAndAPrompt)
{
    const Arguments arguments = parsed({"connect", "x"});
    EXPECT_FALSE(arguments.json);
    EXPECT_EQ(arguments.timeout, 60s);
    EXPECT_EQ(arguments.passphrase, PassphraseSource::Prompt);
}

TEST(ClientArguments, CommonOptionsStandBeforeOrBehindTheCommand)
{
    for (const auto& words : {std::vector<const char*>{"--json", "--timeout", "1.5", "scan"},
                              {"scan", "--timeout=1.5", "--json"}}) {
        const Arguments arguments = parsed(words);
        EXPECT_TRUE(arguments.json);
        EXPECT_EQ(arguments.timeout, 1500ms);
    }
}

TEST(ClientArguments, TheShortestAndTheLongestTimeAreTaken)
{
    EXPECT_EQ(parsed({"--timeout", "0.001", "scan"}).timeout, 1ms);
    EXPECT_EQ(parsed({"--timeout", "86400", "scan"}).timeout, 24h);
}

TEST(ClientArguments, ModesAreSpelledAsTheDaemonDoes)
{
    EXPECT_EQ(parsed({"mode", "host"}).value, "Host");
    EXPECT_EQ(parsed({"mode", "CLIENT"}).value, "Client");
    EXPECT_EQ(parsed({"mode", "Host"}).value, "Host");
}

TEST(ClientArguments, NamesAreTakenAsTheyAre)
{
    for (const char* name : {"status", "\"quoted\"", "[a,b]", "a b", " ", "%x", "é"}) {
        EXPECT_EQ(parsed({"connect", name}).value, name);
        EXPECT_EQ(parsed({"ssid", name}).value, name);
    }
    EXPECT_EQ(parsed({"connect", "--open", "--", "-x"}).value, "-x");
    EXPECT_EQ(parsed({"ssid", "--", "--json"}).value, "--json");
}

TEST(ClientArguments, PassphraseSourcesAreTold)
{
    EXPECT_EQ(parsed({"connect", "x", "--open"}).passphrase, PassphraseSource::None);
    EXPECT_EQ(parsed({"connect", "x", "--passphrase-stdin"}).passphrase, PassphraseSource::StandardInput);
    const Arguments file = parsed({"connect", "--passphrase-file", "/a b", "x"});
    EXPECT_EQ(file.passphrase, PassphraseSource::File);
    EXPECT_EQ(file.passphraseFile, "/a b");
    EXPECT_EQ(file.value, "x");
}

TEST(ClientArguments, WrongOnesEndWithStatusTwo)
{
    const std::string longName(33, 'x');
    for (const auto& words : std::vector<std::vector<const char*>>{
             {"nonsense"},
             {"status", "x"},
             {"status", "--names"},
             {"scan", "--names", "--watch"},
             {"connect", "--force"},
             {"mode", "both"},
             {"band", "2"},
             {"ssid", ""},
             {"ssid", longName.c_str()},
             {"ssid", "\xff"},
             {"ssid", "caf\uFFFE"},
             {"connect"},
             {"connect", "a", "b"},
             {"scan", "--open"},
             {"--timeout", "0", "scan"},
             {"--timeout", "0.0009", "scan"},
             {"--timeout", "-1", "scan"},
             {"--timeout", "inf", "scan"},
             {"--timeout", "nan", "scan"},
             {"--timeout", "1x", "scan"},
             {"--timeout", "", "scan"},
             {"--timeout", "86401", "scan"},
             {"connect", "a", "--open", "--passphrase-stdin"},
             {"connect", "a", "--passphrase-stdin", "--passphrase-file", "f"},
             {"connect", "a", "--passphrase-file"}}) {
        const EarlyEnd end = ended(words);
        EXPECT_EQ(end.status, 2) << testing::PrintToString(words);
        EXPECT_TRUE(end.text.starts_with("vantora-wifi: ")) << end.text;
        EXPECT_TRUE(end.text.ends_with("\nTry 'vantora-wifi --help'.\n")) << end.text;
        const auto tells = [&end](const char* part) { return end.text.find(part) != std::string::npos; };
        EXPECT_EQ(tells("there is no sub-command"), words[0] == std::string("nonsense")) << end.text;
        EXPECT_EQ(tells("wants seconds, more than 0 and at most 86400"), words[0] == std::string("--timeout"))
            << end.text;
    }
}

TEST(ClientArguments, WithoutASubCommandTheUsageIsPrinted)
{
    const EarlyEnd end = ended({});
    EXPECT_EQ(end.status, 2);
    EXPECT_TRUE(end.text.starts_with("vantora-wifi: a sub-command is required\n\n")) << end.text;
    EXPECT_NE(end.text.find("  disconnect "), std::string::npos) << end.text;
}

TEST(ClientArguments, AMistypedWordIsToldFromWhatWasMeant)
{
    const auto text = [](const std::vector<const char*>& words) { return ended(words).text; };
    EXPECT_TRUE(text({"statsu"})
                    .starts_with("vantora-wifi: there is no sub-command \"statsu\"; did you mean status?\n"))
        << text({"statsu"});
    EXPECT_TRUE(text({"wibble"}).starts_with("vantora-wifi: there is no sub-command \"wibble\"\n"));
    EXPECT_TRUE(text({"sxxxus"}).starts_with("vantora-wifi: there is no sub-command \"sxxxus\"\n"));
    EXPECT_NE(text({"mode", "hosst"}).find("\"hosst\" is neither host nor client; did you mean host?"),
              std::string::npos)
        << text({"mode", "hosst"});
    EXPECT_NE(text({"band", "6"}).find("\"6\" is neither 2.4 nor 5\n"), std::string::npos)
        << text({"band", "6"});
}

TEST(ClientArguments, TheHelpNamesUnitAndDefaultOfTheTimeOut)
{
    EXPECT_NE(ended({"--help"}).text.find("--timeout SECONDS (60) "), std::string::npos);
}

TEST(ClientArguments, WithoutAValueTheSettingsAreShown)
{
    for (const char* command : {"mode", "band", "ssid"}) {
        EXPECT_EQ(parsed({command}).value, "");
    }
}

TEST(ClientArguments, WhatToConnectToMayBeAskedForOnATerminalOnly)
{
    const auto asked = parse({"connect"}, true);
    ASSERT_TRUE(std::holds_alternative<Arguments>(asked));
    EXPECT_EQ(std::get<Arguments>(asked).value, "");
    EXPECT_EQ(ended({"connect"}).status, 2);
    EXPECT_TRUE(std::holds_alternative<EarlyEnd>(parse({"connect", "--json"}, true)));
}

TEST(ClientArguments, TheRestOfTheOptionsIsKnown)
{
    EXPECT_FALSE(parsed({"status"}).watch);
    EXPECT_TRUE(parsed({"status", "--watch"}).watch);
    EXPECT_TRUE(parsed({"scan", "--watch"}).watch);
    EXPECT_TRUE(parsed({"scan", "--names"}).names);
    EXPECT_FALSE(parsed({"connect", "x"}).force);
    EXPECT_TRUE(parsed({"connect", "x", "--force"}).force);
    EXPECT_TRUE(parsed({"connect", "x", "--hidden"}).force);
}

TEST(ClientArguments, TheLongestNameIsTaken)
{
    const std::string name(32, 'x');
    EXPECT_EQ(parsed({"ssid", name.c_str()}).value, name);
}

TEST(ClientArguments, APossiblePassphraseIsNotRepeated)
{
    for (const auto& words : {std::vector<const char*>{"connect", "cafe", "secret12"},
                              {"connect", "cafe", "--passphrase", "secret12"},
                              {"connect", "cafe", "--passphrase=secret12"}}) {
        const EarlyEnd end = ended(words);
        EXPECT_EQ(end.status, 2);
        EXPECT_EQ(end.text.find("secret12"), std::string::npos) << end.text;
    }
}

TEST(ClientArguments, HelpAndVersionEndWithStatusZero)
{
    EXPECT_EQ(ended({"--help"}).status, 0);
    EXPECT_NE(ended({"--help"}).text.find("disconnect"), std::string::npos);
    EXPECT_NE(ended({"connect", "--help"}).text.find("--passphrase-file"), std::string::npos);
    EXPECT_EQ(ended({"--version"}).status, 0);
    EXPECT_TRUE(ended({"--version"}).text.starts_with("vantora-wifi "));
}

} // namespace
