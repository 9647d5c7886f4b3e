#include "checks.hpp"

#include <array>
#include <string>

#include "service_manager.hpp"
#include "text_lines.hpp"

namespace doctor {

namespace {

/** A unit that the daemon starts and stops. */
struct DrivenUnit
{
    const char* name;
    const char* why;
    const char* must;  /**< what stands in one of its command lines; nothing: whatever */
    const char* wrong; /**< what it means when that is missing */
};

constexpr auto kDriven = std::to_array<DrivenUnit>({
    {"hostapd.service", "the daemon starts it for Host mode", "/run/",
     "runs hostapd on another file than /run/hostapd.conf, which the daemon writes"},
    {"udhcpd.service", "the daemon starts it for Host mode: without it stations get no address", nullptr, ""},
    {"wpa_supplicant-nl80211@wlan0.service", "the daemon starts it for Client mode", " -u",
     "runs wpa_supplicant without its D-Bus interface (-u)"},
    {"udhcpc@wlan0.service",
     "the daemon starts it after each association: without it the device gets no address", nullptr, ""},
});

constexpr const char* kWiredFile = "/etc/korrin/udhcpd_eth0.service";

/** Whether systemd can run the unit at all; what keeps it from that is added. */
bool is_startable(const Unit& unit, const char* why, Findings& findings)
{
    const std::string check = "units." + unit.name();
    if (unit.is_masked()) {
        findings.bad(check, unit.name() + " is masked", why, "systemctl unmask " + unit.name(),
                     {RemedyKind::UnmaskUnit, unit.name()});
        return false;
    }
    if (unit.load_state() == "not-found") {
        findings.bad(check, "there is no unit " + unit.name(), why,
                     "apt install vantora-device, or write the unit: docs/integration.md has a sample");
        return false;
    }
    if (!unit.is_loaded()) {
        findings.bad(check, unit.name() + " cannot be loaded: " + unit.load_state(), why,
                     "systemd-analyze verify " + unit.name());
        return false;
    }
    return true;
}

void check_driven(const Unit& unit, const DrivenUnit& driven, Findings& findings)
{
    const std::string check = "units." + unit.name();
    if (!is_startable(unit, driven.why, findings)) {
        return;
    }
    if (driven.must != nullptr && !unit.commands().empty() &&
        unit.commands().find(driven.must) == std::string::npos) {
        findings.bad(check, unit.name() + " " + driven.wrong, driven.why,
                     "apt install vantora-device, or change ExecStart=: systemctl edit --full " +
                         unit.name());
    } else if (unit.truth("NeedDaemonReload")) {
        findings.warning(check, "the file of " + unit.name() + " has changed since systemd read it",
                         "it is run as it was before", "systemctl daemon-reload",
                         {RemedyKind::ReloadManager, ""});
    } else if (unit.active_state() == "failed") {
        findings.warning(check, unit.name() + " has failed when it was last started", driven.why,
                         "see why: journalctl -b -u " + unit.name());
    } else if (unit.file_state() == "enabled") {
        findings.warning(check, unit.name() + " is enabled",
                         "it starts with the system, where the daemon starts and stops it by itself",
                         "systemctl disable " + unit.name());
    } else {
        findings.good(check, unit.name() + " can be started, and is " + unit.active_state());
    }
}

/** The wired DHCP server's file lies where systemd looks for none: the daemon enables it by its path. */
void check_wired(const View& view, Findings& findings)
{
    constexpr const char* kCheck = "units.udhcpd_eth0.service";
    const Files::Contents file = view.files.read(kWiredFile);
    if (!file) {
        findings.warning(kCheck, std::string("there is no file ") + kWiredFile,
                         "the daemon starts this DHCP server when eth0 gets an address",
                         "apt install vantora-device, or none on a device without eth0");
        return;
    }
    for (const std::string& line : lines_of(file.text)) {
        if (trimmed(line) == "[Install]") {
            findings.good(kCheck, std::string(kWiredFile) + " can be enabled");
            return;
        }
    }
    findings.warning(kCheck, std::string(kWiredFile) + " has no section [Install]",
                     "enabling it does nothing, so the DHCP server of eth0 never starts",
                     std::string(R"(add "[Install]" and "WantedBy=multi-user.target" to )") + kWiredFile);
}

} // namespace

void check_units(const View& view, Findings& findings)
{
    if (view.waits_for_boot()) {
        findings.note("units.next-boot", "the units take their places with the next start");
        return;
    }
    for (const DrivenUnit& driven : kDriven) {
        const Unit unit = Unit::look_up(view.system, driven.name);
        if (!unit.failure().empty()) {
            findings.bad("units.systemd", "systemd cannot be asked for its units: " + unit.failure(),
                         "the daemon starts and stops everything through it",
                         "systemctl status dbus; without systemd on the system bus nothing works");
            break;
        }
        check_driven(unit, driven, findings);
    }
    check_wired(view, findings);
}

} // namespace doctor
