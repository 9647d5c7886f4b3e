#include <algorithm>
#include <memory>
#include <sstream>

#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "fuzz_input.hpp"
#include "radio/wifi_controller.hpp"
#include "radio/wpa_supplicant.hpp"
#include "support/captured_log.hpp"
#include "utils/interface_queries.hpp"

// What iw, rfkill and wpa_cli print, and /proc/cmdline: any bytes. The commands' pipes are real; the process
// at their other end is this file.

namespace {

/** What the next command prints. Less than a pipe holds, so that nobody has to wait. */
std::string output;
constexpr size_t kMostOutput = 16 * 1024;

/** The descriptor that the next command gets as its standard output. */
int outputEnd = -1;

constexpr size_t kPipeLimit = 256;

/** What a reader of at most 256 bytes sees of the output. */
std::string visible()
{
    const std::string part = output.substr(0, kPipeLimit);
    return part.substr(0, part.find('\0'));
}

bool contains(const std::string& text, const char* word)
{
    return text.find(word) != std::string::npos;
}

void check_power()
{
    fuzz::require(wifi_get_enabled() == (contains(visible(), "yes") ? 0 : 1), "blocked when rfkill says so");
    fuzz::require(wifi_get_state() == wifi_get_enabled(), "state and power are one");
}

void check_mode()
{
    constexpr auto kUntouched = static_cast<WifiMode>(77);
    WifiMode mode = kUntouched;
    const int result = wifi_get_mode(mode);
    const bool accessPoint = contains(visible(), "AP");
    const bool station = !accessPoint && contains(visible(), "managed");
    fuzz::require(result == (accessPoint || station ? 1 : 0), "two modes are known");
    fuzz::require(mode == (accessPoint ? WifiMode::Host : (station ? WifiMode::Client : kUntouched)),
                  "as iw says");
}

/** What the first line of iw's output says of the power, as clients have always got it. */
std::string power_in_output()
{
    const size_t lineBreak = output.find('\n');
    std::string line =
        output.substr(0, lineBreak == std::string::npos ? lineBreak : lineBreak + 1).substr(0, 255);
    line = line.substr(0, line.find('\0'));
    const size_t start = line.find("txpower ");
    if (start == std::string::npos) {
        return {};
    }
    line = line.substr(start);
    const size_t unit = line.find(" dBm");
    return unit == std::string::npos ? line : line.substr(0, unit) + " dB";
}

void check_signal_strength()
{
    const std::unique_ptr<char[]> buffer(new char[kSignalStrengthBufferSize]());
    const bool read = utils_get_signal_strength(buffer.get());
    fuzz::require(read == !output.empty(), "a line was read or there was none");
    const size_t length = strnlen(buffer.get(), kSignalStrengthBufferSize);
    fuzz::require(length < kSignalStrengthBufferSize, "the text has an end");
    fuzz::require(std::string(buffer.get(), length) == power_in_output(), "it is the power, in dB");
}

void check_ssid()
{
    fuzz::require(wpa_supplicant_get_ssid() == visible(), "the SSID is what wpa_cli says of it");
}

void check_command_line()
{
    std::istringstream commandLine(output);
    const std::string line = output.substr(0, output.find('\n')).substr(0, 499);
    fuzz::require(utils_names_nfs_root(commandLine) == contains(line, "root=/dev/nfs"),
                  "in the first line's start");
}

} // namespace

extern "C" {

int posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t*, int from, int to)
{
    if (to == STDOUT_FILENO) {
        outputEnd = from;
    }
    return 0;
}

int posix_spawn(pid_t* child, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*,
                char* const*, char* const*)
{
    *child = 1234;
    fuzz::require(write(outputEnd, output.data(), output.size()) == static_cast<ssize_t>(output.size()),
                  "the pipe takes the output");
    return 0;
}

pid_t waitpid(pid_t child, int* status, int)
{
    *status = 0;
    return child;
}

/** The pause after an empty answer. */
int nanosleep(const timespec*, timespec*)
{
    return 0;
}

} // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    testing_support::captured_log().clear();
    output.assign(reinterpret_cast<const char*>(data), std::min(size, kMostOutput));
    check_power();
    check_mode();
    check_signal_strength();
    check_ssid();
    check_command_line();
    return 0;
}
