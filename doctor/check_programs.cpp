#include "checks.hpp"

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "text_lines.hpp"

namespace doctor {

namespace {

/** A program with a version that tells something. */
struct Program
{
    const char* name;
    const char* question; /**< how it is asked for its version; nothing: by being started without a word */
    Level missing;
    const char* why;
    const char* package;
};

constexpr auto kPrograms = std::to_array<Program>({
    {"rfkill", "--version", Level::Bad, "the daemon switches the radio with it, and reads whether it is on",
     "rfkill"},
    {"iw", "--version", Level::Bad, "the daemon reads mode and transmit power with it", "iw"},
    {"ip", "-V", Level::Bad, "the daemon sets the address of wlan0 with it", "iproute2"},
    {"wpa_cli", "-v", Level::Bad, "the daemon reads the name of the network that was joined with it",
     "wpasupplicant"},
    {"wpa_supplicant", "-v", Level::Bad, "without it the device cannot be a station", "wpasupplicant"},
    {"hostapd", "-v", Level::Bad, "without it the device cannot be an access point", "hostapd"},
    {"busybox", nullptr, Level::Warning, "the units of the DHCP server and client run its udhcpd and udhcpc",
     "busybox"},
    {"systemctl", "--version", Level::Warning, "who calls a daemon that does not run has it started by this",
     "systemd"},
});

/** Those that every system has, and that a stripped one may have lost. */
constexpr auto kShellPrograms = std::to_array<const char*>({"sh", "grep", "egrep", "cut", "tail", "tr"});

std::string version_of(const Program& program, const View& view)
{
    const Ran ran = program.question != nullptr ? view.commands.run({program.name, program.question})
                                                : view.commands.run({program.name});
    // systemd's has no dot: its first line is "systemd 252 (252.38-1~deb12u1)".
    return ran.found && !ran.timedOut ? version_in(ran.output) : std::string();
}

void check_applets(const View& view, Findings& findings)
{
    const Ran ran = view.commands.run({"busybox", "--list"});
    const std::vector<std::string> applets = lines_of(ran.output);
    for (const char* const applet : {"udhcpc", "udhcpd"}) {
        if (ran.succeeded() && std::ranges::find(applets, applet) == applets.end()) {
            findings.warning(std::string("programs.") + applet, std::string("busybox has no ") + applet,
                             "the DHCP units run it",
                             "install a busybox that is built with it (Debian: busybox)");
        }
    }
}

} // namespace

void check_programs(const View& view, Findings& findings)
{
    for (const Program& program : kPrograms) {
        const std::string check = std::string("programs.") + program.name;
        if (view.commands.find(program.name).empty()) {
            findings.add({program.missing,
                          check,
                          std::string(program.name) + " is not installed",
                          program.why,
                          std::string("apt install ") + program.package,
                          {}});
            continue;
        }
        const std::string version = version_of(program, view);
        findings.good(check, std::string(program.name) + (version.empty() ? " is there" : " " + version));
    }
    if (!view.commands.find("busybox").empty()) {
        check_applets(view, findings);
    }
    for (const char* const program : kShellPrograms) {
        if (view.commands.find(program).empty()) {
            findings.bad(std::string("programs.") + program, std::string(program) + " is not installed",
                         "the daemon's command lines run it", "install it (Debian: dash, grep, coreutils)");
        }
    }
}

} // namespace doctor
