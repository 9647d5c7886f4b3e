#include "checks.hpp"

#include <array>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "connman_options.hpp"
#include "dhcpcd_options.hpp"
#include "interface_patterns.hpp"
#include "service_manager.hpp"
#include "text_lines.hpp"

namespace doctor {

namespace {

/** That another manager holds wlan0. */
struct Holder
{
    const char* manager;
    std::string text;
    std::string mend;
    const char* why = "two managers of one interface undo each other's work";
};

using Held = std::optional<Holder>;

Held network_manager(const View& view)
{
    constexpr const char* kName = "org.freedesktop.NetworkManager";
    const Reply device = view.system.call({kName, "/org/freedesktop/NetworkManager", kName},
                                          "GetDeviceByIpIface", "s", {"wlan0"});
    if (view.system.property({kName, device.word(), "org.freedesktop.NetworkManager.Device"}, "Managed")
            .value() != true) {
        return {};
    }
    return Holder{"NetworkManager", "NetworkManager manages wlan0",
                  "put \"[keyfile]\" and \"unmanaged-devices=interface-name:wlan0\" into "
                  "/etc/NetworkManager/conf.d/vantora.conf, then systemctl reload NetworkManager"};
}

Held networkd(const View& view)
{
    constexpr const char* kName = "org.freedesktop.network1";
    const Reply link =
        view.system.call({kName, "/org/freedesktop/network1", "org.freedesktop.network1.Manager"},
                         "GetLinkByName", "s", {"wlan0"});
    if (link.values.size() < 2 || !link.values[1].is_string()) {
        return {};
    }
    const std::string state =
        view.system
            .property({kName, link.values[1].get<std::string>(), "org.freedesktop.network1.Link"},
                      "AdministrativeState")
            .word();
    if (state.empty() || state == "unmanaged") {
        return {};
    }
    return Holder{"systemd-networkd", "systemd-networkd manages wlan0 (it is " + state + ")",
                  "put \"[Match]\", \"Name=wlan0\", \"[Link]\" and \"Unmanaged=yes\" into "
                  "/etc/systemd/network/05-wlan0.network, then networkctl reload"};
}

/** Networks have names, too: only a device's counts. */
Held iwd(const View& view)
{
    const Reply objects =
        view.system.call({"net.connman.iwd", "/", "org.freedesktop.DBus.ObjectManager"}, "GetManagedObjects");
    for (const Json& interfaces : objects.value()) {
        const Json name = interfaces.is_object()
                              ? interfaces.value("/net.connman.iwd.Device/Name"_json_pointer, Json())
                              : Json();
        if (name == "wlan0") {
            return Holder{"iwd", "iwd has wlan0", "systemctl mask --now iwd.service"};
        }
    }
    return {};
}

/** What connman takes cannot be asked of it before it has taken it; it is told when it starts. */
Held connman(const View& view)
{
    const Unit unit = Unit::look_up(view.system, "connman.service");
    ConnmanOptions options;
    for (const std::vector<std::string>& words : unit.starts()) {
        options.add_command_line(words);
    }
    options.add_file(view.files.read(options.file()).text);
    if (options.leaves_alone("wlan0")) {
        return {};
    }
    return Holder{"connman", "connman runs and is not told to leave wlan0 alone",
                  "put wlan0 into NetworkInterfaceBlacklist= of [General] in " + options.file() +
                      ", then systemctl restart connman.service"};
}

/** dhcpcd has no interface to be asked on: it runs, and neither its command line nor its file keeps it off.
 */
Held dhcpcd(const View& view)
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
            return Holder{"dhcpcd", "dhcpcd runs and is not told to leave wlan0 alone",
                          "put \"denyinterfaces wlan0\" into " + options.file() +
                              ", then systemctl restart " + name};
        }
    }
    return {};
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

/** Whether a line of ifupdown's files is "iface wlan0 FAMILY METHOD", with any method that does something. */
bool configures_wlan0(const std::string& line)
{
    std::istringstream words(line);
    std::string keyword;
    std::string name;
    std::string family;
    std::string method;
    words >> keyword >> name >> family >> method;
    return keyword == "iface" && name == "wlan0" && !family.empty() && method != "manual";
}

/** ifupdown is no daemon: what counts is what its files say, and what starts it. */
Held ifupdown(const View& view)
{
    std::vector<std::string> files = {"/etc/network/interfaces"};
    for (const std::string& name : view.files.names("/etc/network/interfaces.d")) {
        files.push_back("/etc/network/interfaces.d/" + name);
    }
    for (const std::string& file : files) {
        std::size_t number = 0;
        for (const std::string& line : lines_of(view.files.read(file).text)) {
            ++number;
            if (!configures_wlan0(line)) {
                continue;
            }
            if (ifupdown_is_kept_off(view)) {
                return {};
            }
            return Holder{"ifupdown",
                          "ifupdown configures wlan0: line " + std::to_string(number) + " of " + file,
                          "take the lines about wlan0 out of " + file};
        }
    }
    return {};
}

/** Debian starts it with the system; it takes the bus name that our station needs. */
Held debians_supplicant(const View& view)
{
    const Unit unit = Unit::look_up(view.system, "wpa_supplicant.service");
    if (!unit.is_active() && unit.file_state() != "enabled") {
        return {};
    }
    return Holder{
        "wpa_supplicant",
        std::string("Debian's wpa_supplicant.service ") + (unit.is_active() ? "runs" : "is enabled"),
        "systemctl mask --now wpa_supplicant.service",
        "it owns the bus name that wpa_supplicant-nl80211@wlan0.service needs, which then cannot start"};
}

/** Another manager, and the name on the system bus that it owns while it runs, if that is how it is found. */
struct Manager
{
    const char* busName;
    Held (*look)(const View& view);
};

constexpr std::array<Manager, 7> kManagers = {{
    {"org.freedesktop.NetworkManager", network_manager},
    {"org.freedesktop.network1", networkd},
    {"net.connman.iwd", iwd},
    {"net.connman", connman},
    {nullptr, dhcpcd},
    {nullptr, ifupdown},
    {nullptr, debians_supplicant},
}};

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
    bool anyone = false;
    for (const Manager& manager : kManagers) {
        if (manager.busName != nullptr && view.system.owner(manager.busName).word().empty()) {
            continue;
        }
        if (const Held held = manager.look(view)) {
            findings.bad(std::string("managers.") + held->manager, held->text, held->why, held->mend);
            anyone = true;
        }
    }
    if (!anyone) {
        findings.good("managers.none", "no other manager holds wlan0");
    }
}

} // namespace doctor
