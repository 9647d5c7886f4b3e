#include "checks.hpp"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "hostapd_template.hpp"
#include "redact.hpp"
#include "service_manager.hpp"
#include "text_lines.hpp"

namespace doctor {

namespace {

constexpr const char* kTemplate = "/etc/hostapd.conf";
constexpr const char* kBroken = "hostapd does not start with it, and there is no access point";
/** As long as the daemon's own. */
constexpr const char* kRadarChannels = "52 56 60 64 100 104 108 112 116 120 124 128 132 136 140 144";
/** A second file that is not there: hostapd reads all its files before it touches an interface, and so ends
 * after having judged the first. It has no switch for that. */
constexpr const char* kNoSuchFile = "/nonexistent/vantora-doctor";

std::string edit(std::size_t line)
{
    return line > 0 ? "edit line " + std::to_string(line) + " of /etc/hostapd.conf"
                    : "edit /etc/hostapd.conf";
}

/** hostapd's judgement on a configuration. */
struct Judgement
{
    bool given = false; /**< whether hostapd came to one at all */
    std::vector<std::string> complaints;
};

Judgement judge(const View& view, const HostapdTemplate& completed)
{
    const Ran ran = view.commands.run({"hostapd", "/dev/stdin", kNoSuchFile}, completed.completed());
    Judgement judgement;
    const bool refused =
        ran.output.find("errors found in configuration file '/dev/stdin'") != std::string::npos;
    const bool accepted = ran.output.find(kNoSuchFile) != std::string::npos;
    judgement.given = ran.found && !ran.timedOut && (refused || accepted);
    for (const std::string& line : lines_of(ran.output)) {
        if (line.find("errors found in configuration file") != std::string::npos) {
            break;
        }
        if (refused) {
            judgement.complaints.emplace_back(trimmed(line));
        }
    }
    return judgement;
}

/** The number behind "Line " at the beginning; 0 when there is none. */
std::size_t line_of(std::string_view complaint)
{
    std::size_t line = 0;
    if (complaint.starts_with("Line ")) {
        std::from_chars(complaint.data() + 5, complaint.data() + complaint.size(), line);
    }
    return line;
}

/** Whether the unit gives hostapd something else than the daemon's file as it is: then it may translate it.
 */
bool is_translated(const View& view)
{
    const Unit unit = Unit::look_up(view.system, "hostapd.service");
    const auto commands = lines_of(unit.commands());
    return commands.size() > 1 && commands.back().find("/run/hostapd.conf") == std::string::npos;
}

/** Debian's hostapd does not know a key that the daemon always writes; its unit has to deal with that. */
void check_dialect(const View& view, Findings& findings)
{
    if (view.waits_for_boot()) {
        findings.note("hostapd.dialect",
                      "hostapd does not know acs_blacklist; its unit takes its place with the next start");
    } else if (is_translated(view)) {
        findings.good("hostapd.dialect",
                      "hostapd does not know acs_blacklist; hostapd.service translates it");
    } else {
        findings.bad(
            "hostapd.dialect", "hostapd does not know acs_blacklist, which the daemon always writes", kBroken,
            "apt install vantora-device, or filter /run/hostapd.conf in hostapd.service: docs/integration.md "
            "tells how");
    }
}

/** One complaint of hostapd's, with the line of the template that it is about. */
void tell(const std::string& complaint, const HostapdTemplate& completed, const Secrets& secrets,
          Findings& findings)
{
    const std::string key = completed.key_at(line_of(complaint));
    const auto entry = completed.entries().find(key);
    const std::size_t line = entry != completed.entries().end() ? entry->second.line : 0;
    std::string_view words = complaint;
    if (line_of(complaint) > 0) {
        words.remove_prefix(std::min(words.find(": ") + 2, words.size()));
    }
    const std::string text = secrets.removed_from(words);
    if (key.empty()) {
        findings.bad("hostapd.accepted", "hostapd refuses the template: " + text, kBroken, edit(0));
    } else if (line == 0) {
        findings.bad("hostapd.accepted", "hostapd refuses \"" + key + "\", which the daemon puts in: " + text,
                     kBroken, key == "ssid" ? "vantora-wifi ssid NAME" : "install a hostapd that knows it");
    } else {
        findings.bad("hostapd.accepted",
                     "hostapd refuses line " + std::to_string(line) + " (" + secrets.removed_from(key) +
                         "): " + text,
                     kBroken, edit(line));
    }
}

void check_with_hostapd(const View& view, const HostapdTemplate& read, const Secrets& secrets,
                        Findings& findings)
{
    if (view.commands.find("hostapd").empty()) {
        findings.unseen("hostapd.accepted", "the template cannot be tried without hostapd",
                        "apt install hostapd");
        return;
    }
    HostapdTemplate completed = read;
    completed.put("ssid", "vantora-doctor");
    completed.put("hw_mode", "g");
    completed.put("acs_blacklist", kRadarChannels);
    Judgement judgement = judge(view, completed);
    for (const std::string& complaint : judgement.complaints) {
        if (complaint.find("unknown configuration item 'acs_blacklist'") != std::string::npos) {
            check_dialect(view, findings);
            completed.remove("acs_blacklist");
            judgement = judge(view, completed);
            break;
        }
    }
    if (!judgement.given) {
        findings.unseen("hostapd.accepted", "hostapd gives no judgement on the template",
                        "hostapd -v; see whether the program works at all");
        return;
    }
    for (const std::string& complaint : judgement.complaints) {
        tell(complaint, completed, secrets, findings);
    }
    if (judgement.complaints.empty()) {
        findings.good("hostapd.accepted", "hostapd itself accepts the template");
    }
}

/** Where hostapd makes its socket: the value, or its DIR=. */
std::string control_folder(const HostapdTemplate& read)
{
    std::string folder = read.value("ctrl_interface");
    if (folder.starts_with("DIR=")) {
        folder = folder.substr(4, folder.find(' ') - 4);
    }
    return folder;
}

void check_control(const HostapdTemplate& read, Findings& findings)
{
    const std::string folder = control_folder(read);
    constexpr const char* kWhy = "the daemon listens to hostapd there: stations would come and go unseen";
    if (folder.empty()) {
        findings.bad("hostapd.ctrl_interface", "/etc/hostapd.conf has no ctrl_interface", kWhy,
                     "add the line ctrl_interface=/var/run/hostapd to /etc/hostapd.conf");
    } else if (folder != "/var/run/hostapd" && folder != "/run/hostapd") {
        const std::size_t line = read.entries().at("ctrl_interface").line;
        findings.bad("hostapd.ctrl_interface",
                     "ctrl_interface on line " + std::to_string(line) + " is " + folder +
                         ", not /var/run/hostapd",
                     kWhy, edit(line));
    } else {
        findings.good("hostapd.ctrl_interface", "ctrl_interface is " + folder);
    }
}

void check_contents(const HostapdTemplate& read, Findings& findings)
{
    for (const HostapdTemplate::Flaw& flaw : read.flaws()) {
        findings.add({flaw.fatal ? Level::Bad : Level::Warning,
                      "hostapd.template",
                      "line " + std::to_string(flaw.line) + " of /etc/hostapd.conf " + flaw.text,
                      flaw.fatal ? kBroken : "of several lines with one key the last one counts",
                      edit(flaw.line),
                      {}});
    }
    if (read.value("interface") != "wlan0") {
        const std::size_t line = read.has("interface") ? read.entries().at("interface").line : 0;
        findings.bad("hostapd.interface", "/etc/hostapd.conf does not say interface=wlan0",
                     "the daemon, its units and its socket are those of wlan0", edit(line));
    }
    if (read.value("wpa").empty() || read.value("wpa") == "0") {
        findings.warning("hostapd.wpa", "the access point has no passphrase (no wpa= in /etc/hostapd.conf)",
                         "everybody in reach may join, and read what others send",
                         "add wpa=2, wpa_key_mgmt=WPA-PSK, rsn_pairwise=CCMP and wpa_passphrase=");
    }
    if (read.value("wpa_passphrase") == "change me") {
        findings.warning("hostapd.passphrase", "the passphrase is the one of the documentation's sample",
                         "everybody may know it", edit(read.entries().at("wpa_passphrase").line));
    }
    if (read.value("country_code").empty()) {
        findings.warning("hostapd.country_code", "/etc/hostapd.conf has no country_code",
                         "without a country most radios allow no access point at 5 GHz",
                         "add country_code= with the two letters of the country to /etc/hostapd.conf");
    }
}

/** Who may read a file that holds the passphrase. */
void check_mode(const View& view, const Secrets& secrets, Findings& findings)
{
    const auto status = view.files.status(kTemplate);
    if (status && (status->st_mode & (S_IRGRP | S_IROTH)) != 0 && !secrets.empty()) {
        findings.warning("hostapd.mode", "others than root may read /etc/hostapd.conf",
                         "it holds the passphrase", "chmod 600 /etc/hostapd.conf");
    }
}

} // namespace

void check_hostapd(const View& view, Findings& findings)
{
    const Files::Contents file = view.files.read(kTemplate);
    if (!file && file.error == EACCES && !view.root) {
        findings.unseen("hostapd.template", "/etc/hostapd.conf can be read by root only", kAsRoot);
        return;
    }
    if (!file) {
        findings.bad("hostapd.template",
                     std::string("/etc/hostapd.conf cannot be read: ") + std::strerror(file.error),
                     "the daemon makes hostapd's configuration of it; without it there is no access point",
                     "apt install vantora-device, or write it: docs/integration.md has a sample");
        return;
    }
    const HostapdTemplate read(file.text);
    const Secrets secrets = Secrets::of_configuration(file.text);
    check_contents(read, findings);
    check_control(read, findings);
    check_mode(view, secrets, findings);
    check_with_hostapd(view, read, secrets, findings);

    constexpr const char* kSocket = "/run/hostapd/wlan0";
    if (view.files.is_abandoned_socket(kSocket)) {
        findings.warning("hostapd.socket", "an ended hostapd has left its socket /run/hostapd/wlan0 behind",
                         "a daemon that starts now tries that one, and then listens to nobody",
                         "rm /run/hostapd/wlan0", {RemedyKind::RemoveFile, kSocket});
    }
}

} // namespace doctor
