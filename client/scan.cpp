#include "scan.hpp"

#include <algorithm>
#include <chrono>
#include <string>

#include "commands.hpp"
#include "networks.hpp"
#include "scan_wait.hpp"
#include "text.hpp"
#include "watch.hpp"
#include "words.hpp"

namespace client {

namespace {

/** The daemon gives up a question to a neighbour after 25 seconds, and then calls the scan begun. */
constexpr std::chrono::seconds kNoAnswer{20};

Failure silent(const std::string& text)
{
    return {ExitStatus::Silent, text, "", ""};
}

/** Names that a shell can be offered: those that are shown as they are. */
void print_names(const Json& networks, Output& output)
{
    for (const Json& network : networks) {
        if (const auto ssid = network["ssid"].get<std::string>(); escaped(ssid) == ssid) {
            output.line(ssid);
        }
    }
}

void print(const Json& networks, Output& output)
{
    if (output.json()) {
        for (const Json& network : networks) {
            output.object("network", network);
        }
    } else if (networks.empty()) {
        output.line("No networks in range.");
    } else {
        output.table(networks_table(networks, output.terminal()));
    }
}

} // namespace

/** The daemon itself takes the request to scan in every mode, and then nothing happens. */
std::optional<Failure> check_station(Daemon& daemon, const std::string& what, Deadline deadline)
{
    auto radio = daemon.get("WiFiState", deadline);
    if (!radio) {
        return radio.failure();
    }
    auto mode = daemon.get("Mode", deadline);
    if (!mode) {
        return mode.failure();
    }
    if (radio.value() == 0) {
        return Failure{ExitStatus::Refused, "the radio is off; switch it on with 'vantora-wifi on'", "", ""};
    }
    if (mode.value() == "Host") {
        return Failure{ExitStatus::Refused,
                       "the device is an access point, which cannot " + what +
                           "; make it a station with 'vantora-wifi mode client'",
                       "", ""};
    }
    return std::nullopt;
}

Result<Json> look_around(Daemon& daemon, Output& output, Deadline deadline)
{
    bool gone = false;
    bool alive = false;
    const Deadline asked = Clock::now();
    ScanWait wait(asked, deadline);
    Daemon::Events events;
    events.networks = [&wait](const Json&) { wait.announced(Clock::now()); };
    events.presence = [&gone](bool running) { gone = gone || !running; };
    events.changed = [&alive](const std::string& property, const Json&) {
        alive = alive || property == "WiFiClientState";
    };
    events.unreadable = [&output](const std::string& text) { output.warning(text); };
    if (auto failure = daemon.follow(std::move(events), deadline)) {
        return *failure;
    }
    if (auto failure = daemon.call("Scan", deadline)) {
        return with_advice(*failure);
    }
    if (Clock::now() - asked >= kNoAnswer) {
        return silent("the station daemon (wpa_supplicant) does not answer");
    }

    wait = ScanWait(Clock::now(), deadline);
    while (!gone && !wait.is_over(Clock::now())) {
        if (wait.is_due_again(Clock::now())) {
            daemon.call_later(
                "Scan", {}, [](const std::optional<Failure>&) {}, deadline);
        }
        if (auto failure = daemon.step(wait.next())) {
            return *failure;
        }
    }
    if (gone) {
        return failure_of_daemon_gone();
    }
    if (!wait.has_announced() && Clock::now() >= deadline) {
        return Failure{ExitStatus::TimedOut, "the scan found nothing new in time", "", ""};
    }
    auto networks = known_networks(daemon, deadline);
    if (networks && networks.value().empty() && !wait.has_announced() && !alive) {
        return silent(
            "nothing was found, and nothing was heard from the station daemon (wpa_supplicant): it may "
            "not run");
    }
    return networks;
}

Result<Json> known_networks(Daemon& daemon, Deadline deadline)
{
    auto networks = daemon.get("AccessPoints", deadline);
    if (!networks) {
        return networks;
    }
    auto joined = daemon.get("ClientSSID", deadline);
    if (!joined) {
        return joined;
    }
    mark_joined(networks.value(), joined.value().get<std::string>());
    return networks;
}

std::optional<Failure> run_scan(Daemon& daemon, const Arguments& arguments, Output& output)
{
    const Deadline deadline = Clock::now() + arguments.timeout;
    if (arguments.names) {
        auto known = known_networks(daemon, deadline);
        if (!known) {
            return known.failure();
        }
        output.json() ? print(known.value(), output) : print_names(known.value(), output);
        return std::nullopt;
    }
    if (auto failure = check_station(daemon, "look for networks", deadline)) {
        return failure;
    }
    if (arguments.watch) {
        return watch_networks(daemon, arguments, output);
    }
    auto networks = look_around(daemon, output, deadline);
    if (!networks) {
        return networks.failure();
    }
    print(networks.value(), output);
    return std::nullopt;
}

} // namespace client
