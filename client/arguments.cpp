#include "arguments.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <string>
#include <system_error>
#include <vector>

#include <CLI/CLI.hpp>

#include "failure.hpp"
#include "nearest_word.hpp"
#include "support/utf8.hpp"
#include "text.hpp"

namespace client {

namespace {

constexpr double kLongest = 86'400;
constexpr std::size_t kLongestSsid = 32;

const char* const kFooter =
    "Exit status: 0 done, 1 refused or failed, 2 wrong usage, 3 daemon not reachable, "
    "4 timed out, 5 the station daemon is not heard.\nvantora-wifi(1) tells more.";

/** An SSID that the daemon can be given: D-Bus carries text only, and the radio 32 bytes. */
std::string check_ssid(const std::string& ssid)
{
    if (ssid.empty()) {
        return "the name of a network is not empty";
    }
    if (ssid.size() > kLongestSsid) {
        return "the name of a network has at most 32 bytes, this one has " + std::to_string(ssid.size());
    }
    return is_bus_text(ssid) ? "" : "the name has to be valid UTF-8, without non-characters";
}

std::string check_timeout(const std::string& text)
{
    double seconds = 0;
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, seconds);
    if (error != std::errc() || stopped != end || !(seconds >= 0.001 && seconds <= kLongest)) {
        return "wants seconds, more than 0 and at most 86400";
    }
    return "";
}

/** What is wrong with a word, told in the words that there are. */
std::string not_among(const std::string& word, const std::vector<std::string>& words)
{
    const std::string meant = nearest_word(word, words);
    return "\"" + word + "\" is neither " + words.front() + " nor " + words.back() +
           (meant.empty() ? "" : "; did you mean " + meant + "?");
}

std::string check_band(const std::string& word)
{
    return word == "2.4" || word == "5" ? "" : not_among(word, {"2.4", "5"});
}

/** Spells the word as the daemon does, or returns what is wrong. */
std::string to_mode(std::string& word)
{
    std::string lower = word;
    std::ranges::transform(lower, lower.begin(), [](unsigned char letter) { return std::tolower(letter); });
    if (lower != "host" && lower != "client") {
        return not_among(word, {"host", "client"});
    }
    word = lower == "host" ? "Host" : "Client";
    return "";
}

/** The sub-commands, bound to the arguments that they fill in. */
class Parser
{
public:
    explicit Parser(bool terminal) : terminal_(terminal)
    {
        app_.require_subcommand(0, 1);
        app_.footer(kFooter);
        app_.set_version_flag("--version", "vantora-wifi " VANTORA_VERSION);
        app_.add_flag("--json", arguments_.json, "Print one JSON object a line, for programs");
        app_.add_option("--timeout", seconds_, "Give up after so many seconds")
            ->check(CLI::Validator(check_timeout, ""))
            ->type_name("SECONDS (60)");

        add(Command::Status, "status", "Show the state of the Wi-Fi")
            ->add_flag("--watch", arguments_.watch, "Go on showing it, redrawn in place");
        add(Command::On, "on", "Switch the radio on");
        add(Command::Off, "off", "Switch the radio off");
        add(Command::Mode, "mode", "Become an access point (host) or a station (client), or show what it is")
            ->add_option("mode", arguments_.value, "host or client")
            ->type_name("host|client")
            ->transform(CLI::Validator(to_mode, ""));
        add(Command::Band, "band", "Set the access point's band, or show it")
            ->add_option("band", arguments_.value, "GHz")
            ->type_name("2.4|5")
            ->check(CLI::Validator(check_band, ""));
        add_ssid(add(Command::Ssid, "ssid", "Set the access point's name, or show it"));
        add_scan();
        add_connect();
        add(Command::Disconnect, "disconnect", "Leave the network");
        add(Command::Monitor, "monitor", "Print every change until interrupted");
    }

    std::variant<Arguments, EarlyEnd> parse(int argc, const char* const* argv)
    {
        try {
            app_.parse(argc, argv);
        } catch (const CLI::CallForHelp&) {
            return EarlyEnd{0, app_.help()};
        } catch (const CLI::CallForVersion& version) {
            return EarlyEnd{0, std::string(version.what()) + "\n"};
        } catch (const CLI::ParseError& error) {
            return wrong(error);
        }
        arguments_.timeout = std::chrono::milliseconds(std::llround(seconds_ * 1000));
        if (app_.get_subcommands().empty()) {
            return without_command();
        }
        if (connect_->parsed() && arguments_.value.empty() && arguments_.json) {
            return wrong(CLI::RequiredError("ssid"));
        }
        return arguments_;
    }

private:
    CLI::App* add(Command command, const std::string& name, const std::string& description)
    {
        CLI::App* const sub = app_.add_subcommand(name, description);
        sub->fallthrough(); // --json and --timeout may stand behind the command, too
        sub->callback([this, command] { arguments_.command = command; });
        return sub;
    }

    void add_ssid(CLI::App* sub)
    {
        sub->add_option("ssid", arguments_.value, "Name of the network, up to 32 bytes")
            ->type_name("")
            ->check(CLI::Validator(check_ssid, ""));
    }

    void add_scan()
    {
        CLI::App* const scan = add(Command::Scan, "scan", "Look for networks and list them");
        auto* const watch =
            scan->add_flag("--watch", arguments_.watch, "Look again and again, redrawn in place");
        scan->add_flag("--names", arguments_.names, "Print only the names that are known now, one a line")
            ->excludes(watch);
    }

    void add_connect()
    {
        connect_ = add(Command::Connect, "connect", "Join a network; asks for the passphrase on a terminal");
        add_ssid(connect_);
        connect_->get_option("ssid")->required(!terminal_);
        connect_->add_flag("--force", arguments_.force, "Go on whatever is known of what is in range");
        connect_->add_flag("--hidden", arguments_.force, "The network does not tell its name");
        auto* const file = connect_->add_option_function<std::string>(
            "--passphrase-file",
            [this](const std::string& path) {
                arguments_.passphrase = PassphraseSource::File;
                arguments_.passphraseFile = path;
            },
            "Read the passphrase from a file");
        file->type_name("FILE");
        auto* const standardInput = connect_->add_flag_callback(
            "--passphrase-stdin", [this] { arguments_.passphrase = PassphraseSource::StandardInput; },
            "Read the passphrase from standard input");
        auto* const open = connect_->add_flag_callback(
            "--open", [this] { arguments_.passphrase = PassphraseSource::None; },
            "The network has no passphrase");
        file->excludes(standardInput)->excludes(open);
        standardInput->excludes(open);
    }

    /** CLI11 repeats what it did not understand. After `connect` that may be a passphrase. */
    EarlyEnd wrong(const CLI::ParseError& error) const
    {
        std::string text = error.what();
        if (connect_->parsed() && dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) {
            text =
                "connect takes the name of one network and its own options; the passphrase is asked for, or read "
                "with --passphrase-file or --passphrase-stdin, and never stands on the command line";
        } else if (app_.get_subcommands().empty() && !app_.remaining().empty()) {
            text = unknown_command(app_.remaining().front());
        }
        return {static_cast<int>(ExitStatus::Usage),
                "vantora-wifi: " + escaped(text) + "\nTry 'vantora-wifi --help'.\n"};
    }

    /** The screen where somebody can see it, else the usage. */
    std::variant<Arguments, EarlyEnd> without_command() const
    {
        if (!terminal_ || arguments_.json) {
            return EarlyEnd{static_cast<int>(ExitStatus::Usage),
                            "vantora-wifi: a sub-command is required\n\n" + app_.help()};
        }
        Arguments screen = arguments_;
        screen.command = Command::Screen;
        return screen;
    }

    std::string unknown_command(const std::string& word) const
    {
        std::vector<std::string> commands;
        for (const CLI::App* const sub : app_.get_subcommands({})) {
            commands.push_back(sub->get_name());
        }
        const std::string meant = nearest_word(word, commands);
        return "there is no sub-command \"" + word + "\"" +
               (meant.empty() ? "" : "; did you mean " + meant + "?");
    }

    bool terminal_;
    Arguments arguments_;
    double seconds_ = 60;
    CLI::App app_{"Wi-Fi of the device, from the command line", "vantora-wifi"};
    CLI::App* connect_ = nullptr;
};

} // namespace

std::variant<Arguments, EarlyEnd> parse_arguments(int argc, const char* const* argv, bool terminal)
{
    return Parser(terminal).parse(argc, argv);
}

} // namespace client
