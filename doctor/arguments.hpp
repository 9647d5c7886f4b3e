#pragma once

#include <cstdint>
#include <string>
#include <variant>

namespace doctor {

/** How the program ends beside 0, 1 and 2, which say how the device is: numbers that scripts depend on. */
constexpr int kFailed = 3; /**< it could not do its own work: no report written, no passphrase found */
constexpr int kUsage = 64;

enum class Task : std::uint8_t { Look, ShowKey };

/** What the command line asks for. */
struct Arguments
{
    Task task = Task::Look;
    bool json = false;
    bool fix = false;
    std::string report; /**< where the bug report goes; empty for none */
};

/** The program is to print this and end: help and version (status 0), or what is wrong with the command line.
 */
struct EarlyEnd
{
    int status = 0;
    std::string text;
};

/** Reads the command line; `argc` and `argv` are main's. */
std::variant<Arguments, EarlyEnd> parse_arguments(int argc, const char* const* argv);

} // namespace doctor
