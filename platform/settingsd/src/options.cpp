#include "options.hpp"

#include <getopt.h>

#include <array>
#include <cstdio>

namespace settingsd {

Options parse_options(int argc, char** argv)
{
    static const auto kLongOptions = std::to_array<option>({
        {"state", required_argument, nullptr, 's'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    });
    Options options;
    for (int c = 0; (c = ::getopt_long(argc, argv, "h", kLongOptions.data(), nullptr)) != -1;) {
        switch (c) {
        case 's':
            options.stateFile = optarg;
            break;
        case 'h':
            options.action = Options::Action::Help;
            return options;
        case 'V':
            options.action = Options::Action::Version;
            return options;
        default:
            options.action = Options::Action::Invalid;
            return options;
        }
    }
    if (optind < argc || options.stateFile.empty()) {
        std::fprintf(stderr, "%s: %s\n", argv[0],
                     optind < argc ? "takes options only, no arguments" : "the state file needs a name");
        options.action = Options::Action::Invalid;
    }
    return options;
}

void print_help()
{
    std::printf(
        "Usage: vantora-settingsd [OPTION]\n"
        "Keeps the device's settings and serves them on the user bus as com.vantora.common.Settings1.\n"
        "\n"
        "  --state FILE   keep the settings in FILE (default: %s)\n"
        "  -h, --help     print this text\n"
        "  --version      print the version\n"
        "\n"
        "Exit status: 0 after SIGTERM or SIGINT, 1 when the bus or the name cannot be had or is lost or another\n"
        "process has the file, 2 for a wrong command line.\n",
        Options().stateFile.c_str());
}

} // namespace settingsd
