#include "report.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "client/terminal.hpp"
#include "redact.hpp"
#include "show.hpp"
#include "support/unique_fd.hpp"
#include "text_lines.hpp"

namespace doctor {

namespace {

constexpr const char* kPassphrase = "/var/lib/vantora-device/passphrase";

constexpr auto kFolders = std::to_array<const char*>({"/etc/wpa_supplicant", "/run/wpa_supplicant"});
constexpr auto kFiles = std::to_array<const char*>(
    {"/etc/os-release", "/proc/version", "/proc/cmdline", "/etc/korrin/device.conf", "/etc/hostapd.conf",
     "/run/hostapd.conf", "/run/vantora-device/hostapd.conf", "/etc/udhcpd.conf",
     "/etc/korrin/udhcpd_wlan0.conf", "/etc/korrin/udhcpd_eth0.conf", "/etc/korrin/udhcpd_eth0.service",
     "/etc/network/interfaces", "/etc/dhcpcd.conf"});

const std::vector<Commands::Words> kCommands = {
    {"dpkg-query", "--show", "vantora-*", "hostapd", "wpasupplicant", "busybox", "systemd"},
    {"ip", "address"},
    {"ip", "route"},
    {"iw", "dev"},
    {"iw", "reg", "get"},
    {"iw", "list"},
    {"rfkill", "list"},
    {"wpa_cli", "-i", "wlan0", "status"},
    {"wpa_cli", "-i", "wlan0", "list_networks"},
    {"systemctl", "--no-pager", "--full", "status", "vantora-network", "vantora-settingsd",
     "vantora-supplicant-names", "hostapd", "udhcpd", "wpa_supplicant-nl80211@wlan0", "udhcpc@wlan0", "-n",
     "0"},
    // Below warning the log holds passphrases: of each Connect, and the access point's.
    {"journalctl", "--no-pager", "-b", "-p", "warning", "-n", "300", "-u", "vantora-network", "-u",
     "vantora-settingsd", "-u", "vantora-supplicant-names", "-u", "hostapd", "-u",
     "wpa_supplicant-nl80211@wlan0"},
};

/** Names in a report are as strange as those that chose them: what could move a cursor is shown as what it
 * is. */
std::string harmless(std::string_view text)
{
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string result;
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        if ((byte < 0x20 && letter != '\n' && letter != '\t') || byte == 0x7f) {
            result += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
        } else {
            result += letter;
        }
    }
    return result;
}

std::string headed(const std::string& title, const std::string& text)
{
    return "\n===== " + title + " =====\n" + text + (text.empty() || text.back() == '\n' ? "" : "\n");
}

/** All paths whose text goes into the report. */
std::vector<std::string> paths(const View& view)
{
    std::vector<std::string> all(kFiles.begin(), kFiles.end());
    for (const std::string folder : kFolders) {
        for (const std::string& name : view.files.names(folder)) {
            if (name.ends_with(".conf")) {
                all.push_back(std::string(folder).append("/").append(name));
            }
        }
    }
    return all;
}

std::string command_text(const View& view, const Commands::Words& words)
{
    const Ran ran = view.commands.run(words);
    if (!ran.found) {
        return "(not installed)";
    }
    return redacted_output(ran.output) + (ran.timedOut ? "(it did not end in time)\n" : "");
}

} // namespace

std::string report_text(const View& view, const Findings& findings, const std::string& when)
{
    Secrets secrets;
    const auto key = lines_of(view.files.read(kPassphrase).text);
    if (!key.empty()) {
        secrets.add(key.front());
    }
    std::string files;
    for (const std::string& path : paths(view)) {
        const Files::Contents file = view.files.read(path);
        secrets.add(Secrets::of_configuration(file.text));
        // What is no configuration has lines without "=" in its own right.
        const bool configuration =
            path.find("hostapd") != std::string::npos || path.find("wpa_supplicant") != std::string::npos;
        files += headed(path, file ? (configuration ? redacted(file.text) : redacted_output(file.text))
                                   : std::string("(") + std::strerror(file.error) + ")");
    }
    std::string text =
        "vantora-doctor " VANTORA_VERSION ", " + when + "\n" +
        (view.root ? "" : "Not run as root: much could not be looked at.\n") +
        headed("findings", redacted_output(shown_to_people({}, findings, client::Terminal(false, false)))) +
        files;
    for (const Commands::Words& words : kCommands) {
        std::string title = "$";
        for (const std::string& word : words) {
            title += " " + word;
        }
        text += headed(title, command_text(view, words));
    }
    return harmless(secrets.removed_from(text));
}

int write_report(const std::string& path, const std::string& text)
{
    // Never over what is there: root's reports are often written where others may put a link.
    UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) {
        return errno;
    }
    std::string_view left = text;
    while (!left.empty()) {
        const ssize_t written = ::write(file.get(), left.data(), left.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return written < 0 ? errno : EIO;
        }
        left.remove_prefix(static_cast<std::size_t>(written));
    }
    return file.reset() == 0 ? 0 : errno;
}

} // namespace doctor
