#include "arguments.hpp"

#include <CLI/CLI.hpp>

#include "client/text.hpp"

namespace doctor {

namespace {

const char* const kFooter =
    "It changes nothing without --fix, and ends after 70 seconds at the latest.\n"
    "Exit status: 0 the device works, 1 it works, with warnings, or not everything could be looked at,\n"
    "2 it does not work, 3 no report or no passphrase, 64 wrong usage.\nvantora-doctor(1) tells more.";

EarlyEnd wrong(const std::string& text)
{
    return {kUsage, "vantora-doctor: " + client::escaped(text) + "\nTry 'vantora-doctor --help'.\n"};
}

} // namespace

std::variant<Arguments, EarlyEnd> parse_arguments(int argc, const char* const* argv)
{
    Arguments arguments;
    CLI::App app("Looks at the device, and says what is as it must be, what is not, and what mends it",
                 "vantora-doctor");
    app.footer(kFooter);
    app.set_version_flag("--version", "vantora-doctor " VANTORA_VERSION);
    auto* const json = app.add_flag("--json", arguments.json, "Print one JSON object, for programs");
    auto* const fix = app.add_flag("--fix", arguments.fix,
                                   "First mend what can be mended without a question, then look again");
    auto* const report = app.add_option("--report", arguments.report,
                                        "Also write a text for a bug report, with passphrases taken out");
    report->type_name("FILE");
    CLI::App* const key =
        app.add_subcommand("key", "Show the access point's passphrase, also as a code for phones");
    key->callback([&arguments] { arguments.task = Task::ShowKey; });
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        return EarlyEnd{0, app.help()};
    } catch (const CLI::CallForVersion& version) {
        return EarlyEnd{0, std::string(version.what()) + "\n"};
    } catch (const CLI::ParseError& error) {
        return wrong(error.what());
    }
    if (report->count() > 0 && arguments.report.empty()) {
        return wrong("--report wants the name of a file");
    }
    if (key->parsed() && json->count() + fix->count() + report->count() > 0) {
        return wrong("key takes no options");
    }
    return arguments;
}

} // namespace doctor
