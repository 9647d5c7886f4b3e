#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <variant>

namespace client {

enum class Command : std::uint8_t {
    Status,
    On,
    Off,
    Mode,
    Band,
    Ssid,
    Scan,
    Connect,
    Disconnect,
    Monitor,
    Screen, /**< no sub-command, on a terminal */
};

/** Where the passphrase of `connect` comes from. Never from an argument: everyone can read those. */
enum class PassphraseSource : std::uint8_t { Prompt, File, StandardInput, None };

/** What the command line asks for. */
struct Arguments
{
    Command command = Command::Status;
    /** The word after `mode` as the daemon spells it, the band, or the SSID. Empty: show the present one, or
     * let a network be picked. */
    std::string value;
    bool json = false;
    std::chrono::milliseconds timeout{60'000};
    PassphraseSource passphrase = PassphraseSource::Prompt;
    std::string passphraseFile;
    bool watch = false; /**< `status` and `scan` go on, redrawn in place */
    bool names = false; /**< `scan` lists the names known now and nothing else */
    bool force = false; /**< `connect` goes on whatever is in range */
};

/** The program is to print this and end: help and version (status 0), or what is wrong with the command line.
 */
struct EarlyEnd
{
    int status = 0;
    std::string text;
};

/**
 * Reads the command line; `argc` and `argv` are main's.
 *
 * @param terminal whether somebody can see and answer questions: then what is missing may be asked for.
 */
std::variant<Arguments, EarlyEnd> parse_arguments(int argc, const char* const* argv, bool terminal);

} // namespace client
