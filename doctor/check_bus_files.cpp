#include "checks.hpp"

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "service_manager.hpp"
#include "text_lines.hpp"

namespace doctor {

namespace {

/** Where the buses look for such files: what runs only until the next start, an administrator's, a package's.
 */
constexpr auto kShared = std::to_array<const char*>(
    {"/run/user/0/dbus-1/", "/etc/dbus-1/", "/usr/local/share/dbus-1/", "/usr/share/dbus-1/"});

/** The text of the first of the places that has the file; empty when none has. */
std::string found_in_shared(const View& view, const std::string& name)
{
    for (const char* const folder : kShared) {
        if (const Files::Contents file = view.files.read(folder + name)) {
            return file.text;
        }
    }
    return {};
}

void check_activation(const View& view, const std::string& name, const std::string& unit, Findings& findings)
{
    const std::string check = "files." + name;
    const std::string text = found_in_shared(view, "services/" + name + ".service");
    constexpr const char* kWhy =
        "a call to a daemon that does not run is then refused instead of waiting for its start";
    const std::string package = unit.substr(0, unit.find('.'));
    if (text.empty()) {
        findings.warning(check, "there is no activation file of " + name, kWhy,
                         "apt install --reinstall " + package);
        return;
    }
    const auto lines = lines_of(text);
    const bool named = std::ranges::find(lines, "Name=" + name) != lines.end();
    const bool starts = std::ranges::any_of(lines, [&unit](const std::string& line) {
        return line.starts_with("Exec=") && line.ends_with(" " + unit);
    });
    if (!named || !starts) {
        findings.warning(check, "the activation file of " + name + " does not start " + unit, kWhy,
                         "apt install --reinstall " + package);
    } else {
        findings.good(check, name + " is started when it is called");
    }
}

void check_policy(const View& view, Findings& findings)
{
    constexpr const char* kPolicy = "system.d/vantora-supplicant-names.conf";
    if (!Unit::look_up(view.system, "vantora-supplicant-names.service").is_loaded()) {
        return; // looked at where wpa_supplicant's names are
    }
    const std::string policy = found_in_shared(view, kPolicy);
    if (policy.find("own=\"fi.epitest.hostap.WPASupplicant\"") == std::string::npos) {
        findings.bad("files.policy", "the bus policy of vantora-supplicant-names is missing",
                     "the bus then refuses it wpa_supplicant's older name",
                     "apt install --reinstall vantora-supplicant-names, then systemctl reload dbus");
    } else {
        findings.good("files.policy", "the bus policy of wpa_supplicant's older name is there");
    }
}

} // namespace

void check_bus_files(const View& view, Findings& findings)
{
    check_activation(view, "com.vantora.Network1", "vantora-network.service", findings);
    // A device may bring a settings daemon of its own, which is started in its own way.
    if (Unit::look_up(view.system, "vantora-settingsd.service").is_loaded()) {
        check_activation(view, "com.vantora.common.Settings1", "vantora-settingsd.service", findings);
    }
    check_policy(view, findings);
}

} // namespace doctor
