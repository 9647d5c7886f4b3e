#include <clocale>
#include <cstdio>
#include <exception>
#include <optional>
#include <variant>

#include <unistd.h>

#include "arguments.hpp"
#include "commands.hpp"
#include "daemon.hpp"
#include "output.hpp"
#include "whose_bus.hpp"

namespace {

using namespace client;

CommandFunction* function_of(Command command)
{
    switch (command) {
    case Command::Status:
        return run_status;
    case Command::Scan:
        return run_scan;
    case Command::Connect:
        return run_connect;
    case Command::Disconnect:
        return run_disconnect;
    case Command::Monitor:
        return run_monitor;
    case Command::Screen:
        return run_screen;
    default:
        return run_setting;
    }
}

std::optional<Failure> run(const Arguments& arguments, Output& output)
{
    auto daemon = Daemon::connect(Clock::now() + arguments.timeout);
    if (!daemon) {
        return with_whose_bus(daemon.failure());
    }
    auto failure = function_of(arguments.command)(*daemon.value(), arguments, output);
    return failure && !failure->errorName.empty() ? std::optional(with_whose_bus(*failure)) : failure;
}

bool has_terminal()
{
    return ::isatty(STDIN_FILENO) != 0 && ::isatty(STDOUT_FILENO) != 0;
}

int run_program(int argc, const char* const* argv)
{
    std::setlocale(LC_CTYPE, "");

    const auto parsed = parse_arguments(argc, argv, has_terminal());
    if (const auto* const end = std::get_if<EarlyEnd>(&parsed); end != nullptr) {
        std::fputs(end->text.c_str(), end->status == 0 ? stdout : stderr);
        return end->status;
    }

    const auto& arguments = std::get<Arguments>(parsed);
    Output output(arguments.json);
    ExitStatus status = ExitStatus::Done;
    if (const auto failure = run(arguments, output)) {
        output.failure(*failure);
        status = failure->status;
    }
    if (!output.complete()) {
        std::fputs("vantora-wifi: standard output cannot be written\n", stderr);
        status = status == ExitStatus::Done ? ExitStatus::Refused : status;
    }
    return static_cast<int>(status);
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run_program(argc, argv);
    } catch (const std::exception& error) {
        // Only lack of memory gets here.
        std::fprintf(stderr, "vantora-wifi: %s\n", error.what());
        return static_cast<int>(ExitStatus::Refused);
    }
}
