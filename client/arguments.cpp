#include "arguments.hpp"

#include <charconv>
#include <cmath>
#include <map>
#include <string>
#include <system_error>

#include <CLI/CLI.hpp>

#include "failure.hpp"
#include "text.hpp"

namespace client {

namespace {

constexpr double kLongest = 86'400;
constexpr std::size_t kLongestSsid = 32;

const char* const kFooter =
    "Exit status: 0 done, 1 refused or failed, 2 wrong usage, 3 daemon not reachable, "
    "4 timed out.\nvantora-wifi(1) tells more.";

/** An SSID that the daemon can be given: D-Bus carries text only, and the radio 32 bytes. */
std::string check_ssid(const std::string& ssid)
{
    if (ssid.empty()) {
        return "the name of a network is not empty";
    }
    if (ssid.size() > kLongestSsid) {
        return "the name of a network has at most 32 bytes, this one has " + std::to_string(ssid.size());
    }
    return is_utf8(ssid) ? "" : "the name has to be valid UTF-8";
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

/** The sub-commands, bound to the arguments that they fill in. */
class Parser
{
public:
    Parser()
    {
        app_.require_subcommand(1);
        app_.footer(kFooter);
        app_.set_version_flag("--version", "vantora-wifi " VANTORA_VERSION);
        app_.add_flag("--json", arguments_.json, "Print one JSON object a line, for programs");
        app_.add_option("--timeout", seconds_, "Give up after so many seconds")
            ->check(CLI::Validator(check_timeout, "SECONDS"))
            ->type_name("")
            ->default_str("60");

        add(Command::Status, "status", "Show the state of the Wi-Fi");
        add(Command::On, "on", "Switch the radio on");
        add(Command::Off, "off", "Switch the radio off");
        add(Command::Mode, "mode", "Become an access point (host) or a station (client)")
            ->add_option("mode", arguments_.value, "host or client")
            ->required()
            ->type_name("")
            ->transform(
                CLI::Transformer(std::map<std::string, std::string>{{"host", "Host"}, {"client", "Client"}},
                                 CLI::ignore_case)
                    .description("host|client"))
            ->check(CLI::IsMember({"Host", "Client"}).description(""));
        add(Command::Band, "band", "Set the access point's band")
            ->add_option("band", arguments_.value, "GHz")
            ->required()
            ->type_name("")
            ->check(CLI::IsMember({"2.4", "5"}).description("2.4|5"));
        add_ssid(add(Command::Ssid, "ssid", "Set the access point's name"));
        add(Command::Scan, "scan", "Look for networks and list them");
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
            ->required()
            ->type_name("")
            ->check(CLI::Validator(check_ssid, ""));
    }

    void add_connect()
    {
        connect_ = add(Command::Connect, "connect", "Join a network; asks for the passphrase on a terminal");
        add_ssid(connect_);
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
        }
        return {static_cast<int>(ExitStatus::Usage),
                "vantora-wifi: " + escaped(text) + "\nTry 'vantora-wifi --help'.\n"};
    }

    Arguments arguments_;
    double seconds_ = 60;
    CLI::App app_{"Wi-Fi of the device, from the command line", "vantora-wifi"};
    CLI::App* connect_ = nullptr;
};

} // namespace

std::variant<Arguments, EarlyEnd> parse_arguments(int argc, const char* const* argv)
{
    return Parser().parse(argc, argv);
}

} // namespace client
