#include "checks.hpp"

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "dhcpcd_options.hpp"
#include "interface_patterns.hpp"
#include "service_manager.hpp"
#include "text_lines.hpp"

namespace doctor {

namespace {

constexpr const char* kWhy = "two managers of one interface undo each other's work";

void held(const char* manager, const std::string& text, const std::string& mend, Findings& findings)
{
    findings.bad(std::string("managers.") + manager, text, kWhy, mend);
}

bool has_owner(const View& view, const char* name)
{
    return !view.system.owner(name).word().empty();
}

bool check_network_manager(const View& view, Findings& findings)
{
    constexpr const char* kName = "org.freedesktop.NetworkManager";
    if (!has_owner(view, kName)) {
        return false;
    }
    const Reply device = view.system.call({kName, "/org/freedesktop/NetworkManager", kName},
                                          "GetDeviceByIpIface", "s", {"wlan0"});
    const Reply managed =
        view.system.property({kName, device.word(), "org.freedesktop.NetworkManager.Device"}, "Managed");
    if (managed.value() != true) {
        return false;
    }
    held("NetworkManager", "NetworkManager manages wlan0",
         "put \"[keyfile]\" and \"unmanaged-devices=interface-name:wlan0\" into "
         "/etc/NetworkManager/conf.d/vantora.conf, then systemctl reload NetworkManager",
         findings);
    return true;
}

bool check_networkd(const View& view, Findings& findings)
{
    constexpr const char* kName = "org.freedesktop.network1";
    if (!has_owner(view, kName)) {
        return false;
    }
    const Reply link =
        view.system.call({kName, "/org/freedesktop/network1", "org.freedesktop.network1.Manager"},
                         "GetLinkByName", "s", {"wlan0"});
    if (link.values.size() < 2 || !link.values[1].is_string()) {
        return false;
    }
    const std::string state =
        view.system
            .property({kName, link.values[1].get<std::string>(), "org.freedesktop.network1.Link"},
                      "AdministrativeState")
            .word();
    if (state.empty() || state == "unmanaged") {
        return false;
    }
    held("systemd-networkd", "systemd-networkd manages wlan0 (it is " + state + ")",
         "put \"[Match]\", \"Name=wlan0\", \"[Link]\" and \"Unmanaged=yes\" into "
         "/etc/systemd/network/05-wlan0.network, then networkctl reload",
         findings);
    return true;
}

bool check_iwd(const View& view, Findings& findings)
{
    constexpr const char* kName = "net.connman.iwd";
    if (!has_owner(view, kName)) {
        return false;
    }
    const Reply objects =
        view.system.call({kName, "/", "org.freedesktop.DBus.ObjectManager"}, "GetManagedObjects");
    if (objects.value().dump(-1, ' ', false, Json::error_handler_t::replace).find(R"("Name":"wlan0")") ==
        std::string::npos) {
        return false;
    }
    held("iwd", "iwd has wlan0", "systemctl mask --now iwd.service", findings);
    return true;
}

bool check_connman(const View& view, Findings& findings)
{
    if (!has_owner(view, "net.connman")) {
        return false;
    }
    const std::string settings = view.files.read("/etc/connman/main.conf").text;
    for (const std::string& line : lines_of(settings)) {
        if (line.starts_with("NetworkInterfaceBlacklist") && line.find("wlan") != std::string::npos) {
            return false;
        }
    }
    held(
        "connman", "connman runs and is not told to leave wlan0 alone",
        "put wlan0 into NetworkInterfaceBlacklist= in /etc/connman/main.conf, then systemctl restart connman",
        findings);
    return true;
}

/** dhcpcd has no interface to be asked on: it runs, and neither its command line nor its file keeps it off.
 */
bool check_dhcpcd(const View& view, Findings& findings)
{
    for (const char* const name : {"dhcpcd.service", "dhcpcd@wlan0.service"}) {
        const Unit unit = Unit::look_up(view.system, name);
        if (!unit.is_active()) {
            continue;
        }
        DhcpcdOptions options;
        for (const std::vector<std::string>& words : unit.starts()) {
            options.add_command_line(words);
        }
        options.add_file(view.files.read(options.file()).text);
        if (!options.leaves_alone("wlan0")) {
            held("dhcpcd", "dhcpcd runs and is not told to leave wlan0 alone",
                 "put \"denyinterfaces wlan0\" into " + options.file() + ", then systemctl restart " + name,
                 findings);
            return true;
        }
    }
    return false;
}

/** Whether what starts ifupdown, at boot and when the interface appears, is told to pass wlan0 over. */
bool ifupdown_is_kept_off(const View& view)
{
    std::string excluded = Unit::look_up(view.system, "networking.service").variable("EXCLUDE_INTERFACES");
    // The unit reads this file, and what is in it holds.
    constexpr std::string_view kVariable = "EXCLUDE_INTERFACES=";
    for (const std::string& line : lines_of(view.files.read("/etc/default/networking").text)) {
        const std::string_view bare = trimmed(line);
        if (bare.starts_with(kVariable)) {
            excluded = bare.substr(kVariable.size());
            std::erase_if(excluded, [](char character) { return character == '"' || character == '\''; });
        }
    }
    return has_pattern_for(excluded, "wlan0") && Unit::look_up(view.system, "ifup@wlan0.service").is_masked();
}

/** ifupdown is no daemon: what counts is what its files say, and what starts it. */
bool check_ifupdown(const View& view, Findings& findings)
{
    std::vector<std::string> files = {"/etc/network/interfaces"};
    for (const std::string& name : view.files.names("/etc/network/interfaces.d")) {
        files.push_back("/etc/network/interfaces.d/" + name);
    }
    for (const std::string& file : files) {
        std::size_t number = 0;
        for (const std::string& line : lines_of(view.files.read(file).text)) {
            ++number;
            const std::string_view bare = trimmed(line);
            if (!bare.starts_with("iface wlan0 ") || bare.ends_with(" manual")) {
                continue;
            }
            if (ifupdown_is_kept_off(view)) {
                return false;
            }
            held("ifupdown", "ifupdown configures wlan0: line " + std::to_string(number) + " of " + file,
                 "take the lines about wlan0 out of " + file, findings);
            return true;
        }
    }
    return false;
}

/** Debian starts it with the system; it takes the bus name that our station needs. */
bool check_debians_supplicant(const View& view, Findings& findings)
{
    const Unit unit = Unit::look_up(view.system, "wpa_supplicant.service");
    if (!unit.is_active() && unit.file_state() != "enabled") {
        return false;
    }
    findings.bad(
        "managers.wpa_supplicant",
        std::string("Debian's wpa_supplicant.service ") + (unit.is_active() ? "runs" : "is enabled"),
        "it owns the bus name that wpa_supplicant-nl80211@wlan0.service needs, which then cannot start",
        "systemctl mask --now wpa_supplicant.service");
    return true;
}

} // namespace

void check_managers(const View& view, Findings& findings)
{
    if (view.waits_for_boot()) {
        findings.note("managers.next-boot", "who else holds wlan0 is looked at after the next start");
        return;
    }
    if (const Reply bus = view.system.owner("org.freedesktop.systemd1"); !bus.answered()) {
        findings.unseen("managers.bus", "other managers cannot be asked for: " + bus.text,
                        "systemctl status dbus");
        return;
    }
    const std::array anyone = {check_network_manager(view, findings),
                               check_networkd(view, findings),
                               check_iwd(view, findings),
                               check_connman(view, findings),
                               check_dhcpcd(view, findings),
                               check_ifupdown(view, findings),
                               check_debians_supplicant(view, findings)};
    for (const bool one : anyone) {
        if (one) {
            return;
        }
    }
    findings.good("managers.none", "no other manager holds wlan0");
}

} // namespace doctor
