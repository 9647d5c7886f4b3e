#pragma once

#include <string>

namespace settingsd {

/** What the command line asks for. */
struct Options
{
    enum class Action { Serve, Help, Version, Invalid };

    Action action = Action::Serve;
    std::string stateFile = "/var/lib/vantora-settingsd/settings.json";
};

/** Reads the command line; says what is wrong with an invalid one on standard error. */
Options parse_options(int argc, char** argv);

/** Prints what --help prints. */
void print_help();

} // namespace settingsd
