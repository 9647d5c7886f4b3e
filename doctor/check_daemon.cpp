#include "checks.hpp"

#include <cstdint>
#include <string>

#include "service_manager.hpp"

namespace doctor {

namespace {

constexpr const char* kUnit = "vantora-network.service";
const Target kObject = {"com.vantora.Network1", "/com/vantora/Network1", "com.vantora.Network1.WiFi"};

std::string counted(std::uint64_t count, const char* unit)
{
    return std::to_string(count) + " " + unit + (count == 1 ? "" : "s");
}

/** A time for people: "3 days", "2 hours", "5 minutes", "40 seconds". */
std::string told_time(std::uint64_t seconds)
{
    constexpr std::uint64_t kMinute = 60;
    constexpr std::uint64_t kHour = 60 * kMinute;
    constexpr std::uint64_t kDay = 24 * kHour;
    if (seconds >= kDay) {
        return counted(seconds / kDay, "day");
    }
    if (seconds >= kHour) {
        return counted(seconds / kHour, "hour");
    }
    if (seconds >= kMinute) {
        return counted(seconds / kMinute, "minute");
    }
    return seconds > 0 ? counted(seconds, "second") : "a moment";
}

std::uint64_t seconds_since(std::uint64_t monotonicUsec, const View& view)
{
    const auto now = static_cast<std::uint64_t>(view.sinceBoot.count());
    return now > monotonicUsec ? (now - monotonicUsec) / 1'000'000 : 0;
}

void check_start(const View& view, const Unit& unit, Findings& findings)
{
    const std::uint64_t began = unit.number("ActiveEnterTimestampMonotonic");
    if (unit.is_active()) {
        const std::uint64_t restarts = unit.number("NRestarts");
        const std::uint64_t seconds = seconds_since(began, view);
        const std::string runs = "the daemon has been running for " + told_time(seconds);
        constexpr std::uint64_t kSettled = 600;
        if (restarts > 0 && seconds < kSettled) {
            findings.warning(
                "daemon.running", runs + ", and was restarted " + std::to_string(restarts) + " times before",
                "something ends it", std::string("see what: journalctl -b -p warning -u ") + kUnit);
        } else {
            findings.good("daemon.running",
                          runs + (restarts > 0 ? ", after " + std::to_string(restarts) + " restarts" : ""));
        }
    } else if (view.waits_for_boot()) {
        findings.warning(
            "daemon.running", "the daemon was installed since the device was started",
            "it takes wlan0 with the next start, so that nobody is cut off who is connected over it",
            "systemctl reboot");
    } else if (unit.active_state() == "inactive" && began == 0) {
        findings.warning("daemon.running", "the daemon has not been started since the device was",
                         "nothing looks after the radio", std::string("systemctl start ") + kUnit,
                         {RemedyKind::StartUnit, kUnit});
    } else {
        const bool stopped = unit.active_state() == "inactive";
        findings.bad("daemon.running", "the daemon does not run: its unit is " + unit.active_state(),
                     "nothing looks after the radio",
                     stopped ? std::string("systemctl start ") + kUnit
                             : std::string("see why: journalctl -b -u ") + kUnit,
                     stopped ? Remedy{RemedyKind::StartUnit, kUnit} : Remedy{});
    }
}

void check_unit(const View& view, Findings& findings)
{
    const Unit unit = Unit::look_up(view.system, kUnit);
    if (!unit.failure().empty()) {
        findings.bad("daemon.unit",
                     "systemd cannot be asked for " + std::string(kUnit) + ": " + unit.failure(),
                     "it starts the daemon", "systemctl status dbus");
    } else if (unit.is_masked()) {
        findings.bad("daemon.unit", std::string(kUnit) + " is masked", "it is not started at all",
                     std::string("systemctl unmask ") + kUnit, {RemedyKind::UnmaskUnit, kUnit});
    } else if (!unit.is_loaded()) {
        findings.bad("daemon.unit", std::string(kUnit) + " is not installed", "it starts the daemon",
                     "apt install vantora-network");
    } else {
        if (unit.file_state() == "disabled") {
            findings.warning("daemon.unit", std::string(kUnit) + " is disabled",
                             "the device comes up without its network manager",
                             std::string("systemctl enable ") + kUnit);
        } else {
            findings.good("daemon.unit", std::string(kUnit) + " starts with the system");
        }
        check_start(view, unit, findings);
    }
}

void check_answers(const View& view, Findings& findings)
{
    const Reply owner = view.user.owner(kObject.name);
    if (!owner.answered()) {
        findings.unseen("daemon.answers", "the daemon cannot be asked without root's user bus",
                        view.root ? "see root's user bus" : kAsRoot);
        return;
    }
    if (owner.word().empty()) {
        findings.note("daemon.answers", "nobody has the name com.vantora.Network1",
                      "the daemon does not run");
        return;
    }
    // Not all properties: a list of networks is a question to wpa_supplicant for each.
    const Reply mode = view.user.property(kObject, "Mode");
    if (!mode.answered()) {
        findings.bad("daemon.answers", "the daemon does not answer: " + mode.text,
                     "whoever calls it waits; it may itself be waiting for a neighbour that hangs",
                     std::string("try again in a minute; journalctl -b -u ") + kUnit +
                         " tells what it waits for");
        return;
    }
    const std::string address = view.user.property(kObject, "IPAddress").word();
    findings.good("daemon.answers", "the daemon answers: Mode is " + mode.word() + ", " +
                                        (address.empty() ? "wlan0 has no address" : "wlan0 has " + address));
}

} // namespace

void check_daemon(const View& view, Findings& findings)
{
    check_unit(view, findings);
    check_answers(view, findings);
}

} // namespace doctor
