#include "checks.hpp"

#include <cerrno>
#include <string>

#include "service_manager.hpp"

namespace doctor {

namespace {

constexpr const char* kNewerName = "fi.w1.wpa_supplicant1";
constexpr const char* kOlderName = "fi.epitest.hostap.WPASupplicant";
constexpr const char* kStation = "wpa_supplicant-nl80211@wlan0.service";
constexpr const char* kStandIn = "vantora-supplicant-names.service";
constexpr const char* kConfiguration = "/etc/wpa_supplicant/wpa_supplicant-nl80211-wlan0.conf";

void check_configuration(const View& view, Findings& findings)
{
    const std::string name = kConfiguration;
    const Files::Contents file = view.files.read(name);
    constexpr const char* kMend = "put the line ctrl_interface=/var/run/wpa_supplicant into that file";
    if (!file && !view.root && file.error == EACCES) {
        findings.unseen("supplicant.file", name + " can be read by root only", kAsRoot);
    } else if (!file) {
        findings.bad("supplicant.file", "there is no " + name, "wpa_supplicant does not start without it",
                     kMend);
    } else if (file.text.find("ctrl_interface=") == std::string::npos) {
        findings.warning("supplicant.file", name + " has no ctrl_interface",
                         "ClientSSID is read with wpa_cli, which then finds nobody", kMend);
    } else {
        findings.good("supplicant.file", name + " has a ctrl_interface");
    }
}

/** Whether another policy than the stand-in's lets somebody own the older name: a wpa_supplicant that has
 * both. */
bool is_owned_by_policy(const View& view)
{
    for (const std::string folder : {"/etc/dbus-1/system.d/", "/usr/share/dbus-1/system.d/"}) {
        for (const std::string& name : view.files.names(folder)) {
            if (name != "vantora-supplicant-names.conf" &&
                view.files.read(folder + name).text.find("own=\"" + std::string(kOlderName) + "\"") !=
                    std::string::npos) {
                return true;
            }
        }
    }
    return false;
}

/** Who is to own the older name while wpa_supplicant does not run. */
void check_stand_in(const View& view, Findings& findings)
{
    const Unit unit = Unit::look_up(view.system, kStandIn);
    if (unit.is_masked()) {
        findings.bad("supplicant.stand-in", std::string(kStandIn) + " is masked",
                     "without the older name scans and connections fail",
                     std::string("systemctl unmask ") + kStandIn, {RemedyKind::UnmaskUnit, kStandIn});
    } else if (unit.load_state() == "not-found" && is_owned_by_policy(view)) {
        findings.good("supplicant.stand-in", "the bus lets wpa_supplicant itself own the older name");
    } else if (unit.load_state() == "not-found") {
        findings.warning("supplicant.stand-in", "vantora-supplicant-names is not installed",
                         std::string("present builds of wpa_supplicant do not own ") + kOlderName +
                             ", and scans and connections then fail",
                         "apt install vantora-supplicant-names, unless this wpa_supplicant owns both names");
    } else if (unit.is_loaded() && !unit.is_active()) {
        findings.bad("supplicant.stand-in", "vantora-supplicant-names does not run",
                     "without the older name scans and connections fail",
                     std::string("systemctl start ") + kStandIn, {RemedyKind::StartUnit, kStandIn});
    } else if (unit.is_active()) {
        findings.good("supplicant.stand-in", "vantora-supplicant-names runs, and waits for wpa_supplicant");
    }
}

/** Debian's own wpa_supplicant.service owns the name, too, and ours cannot start beside it. */
void check_owner(const Unit& station, Findings& findings)
{
    if (!station.failure().empty() || station.is_active()) {
        findings.good("supplicant.newer-name", std::string("wpa_supplicant owns ") + kNewerName);
        return;
    }
    findings.bad("supplicant.newer-name",
                 std::string(kNewerName) + " is owned by another wpa_supplicant than that of " + kStation,
                 "two cannot have the name, so the station is never started",
                 "systemctl mask --now wpa_supplicant.service");
}

void check_older_name(const View& view, Findings& findings)
{
    if (!view.system.owner(kOlderName).word().empty()) {
        findings.good("supplicant.older-name", std::string(kOlderName) + " is owned, too");
        return;
    }
    const Unit standIn = Unit::look_up(view.system, kStandIn);
    const bool startable = standIn.is_loaded() && !standIn.is_active();
    findings.bad("supplicant.older-name", std::string("nobody owns ") + kOlderName,
                 "the daemon scans and connects through it",
                 standIn.load_state() == "not-found" ? "apt install vantora-supplicant-names"
                                                     : std::string("systemctl restart ") + kStandIn,
                 startable ? Remedy{RemedyKind::StartUnit, kStandIn} : Remedy{});
}

void check_interface(const View& view, Findings& findings)
{
    const Reply found =
        view.system.call({kNewerName, "/fi/w1/wpa_supplicant1", kNewerName}, "GetInterface", "s", {"wlan0"});
    if (found.kind == Reply::Kind::Silent) {
        findings.bad("supplicant.wlan0", "wpa_supplicant does not answer",
                     "the daemon waits 25 s for each question", std::string("systemctl restart ") + kStation);
    } else if (found.kind == Reply::Kind::Refused && found.error.ends_with(".AccessDenied")) {
        findings.unseen("supplicant.wlan0", "only root may ask wpa_supplicant for wlan0", kAsRoot);
    } else if (!found.answered()) {
        findings.bad("supplicant.wlan0", "wpa_supplicant does not have wlan0: " + found.text,
                     "it manages something else, and the station sees no networks",
                     std::string("systemctl restart ") + kStation);
    } else {
        findings.good("supplicant.wlan0", "wpa_supplicant has wlan0");
    }
}

} // namespace

void check_supplicant(const View& view, Findings& findings)
{
    check_configuration(view, findings);
    if (view.waits_for_boot()) {
        findings.note("supplicant.next-boot", "wpa_supplicant's names are looked at after the next start");
        return;
    }
    const Reply newer = view.system.owner(kNewerName);
    if (!newer.answered()) {
        findings.bad("supplicant.names", "the system bus cannot be asked for wpa_supplicant: " + newer.text,
                     "the daemon reaches wpa_supplicant there", "systemctl status dbus");
        return;
    }
    const Unit station = Unit::look_up(view.system, kStation);
    if (!newer.word().empty()) {
        check_owner(station, findings);
        check_older_name(view, findings);
        if (station.is_active()) {
            check_interface(view, findings);
        }
        return;
    }
    if (station.is_active()) {
        findings.bad("supplicant.newer-name",
                     std::string("nobody owns ") + kNewerName + ", though its unit runs",
                     "the station's states are heard from it",
                     "start wpa_supplicant with -u, and see: journalctl -b -u " + std::string(kStation));
        return;
    }
    findings.note("supplicant.newer-name", "wpa_supplicant does not run: it is there in Client mode only");
    check_stand_in(view, findings);
}

} // namespace doctor
