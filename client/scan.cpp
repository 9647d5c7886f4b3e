#include "scan.hpp"

#include <algorithm>
#include <chrono>
#include <string>

#include "commands.hpp"
#include "signal_bars.hpp"
#include "text.hpp"
#include "words.hpp"

namespace client {

namespace {

using std::chrono::milliseconds;

/** A scan takes two to four seconds. One that found nothing new is not announced at all. */
constexpr milliseconds kLongestScan{8000};
/** A station that is still starting up does not scan, and the daemon does not say so: then it is asked once
 * more. */
constexpr milliseconds kAskAgain{3000};
/** The list may be announced in pieces, one soon after the other. */
constexpr milliseconds kQuiet{300};

/** Why there is nothing to scan with. The daemon itself takes the request in every mode, and then nothing
 * happens. */
std::optional<Failure> check_mode(Daemon& daemon, Deadline deadline)
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
        return Failure{
            ExitStatus::Refused,
            "the device is an access point, which cannot look for networks; make it a station with "
            "'vantora-wifi mode client'",
            "", ""};
    }
    return std::nullopt;
}

/** Asks for a scan and waits for what it finds. */
Result<Json> scan(Daemon& daemon, Deadline deadline)
{
    bool announced = false;
    bool gone = false;
    Deadline enough = kNever;
    Deadline askAgain = kNever;
    Daemon::Events events;
    events.networks = [&announced, &enough, &askAgain](const Json&) {
        announced = true;
        askAgain = kNever;
        enough = Clock::now() + kQuiet;
    };
    events.presence = [&gone](bool running) { gone = gone || !running; };
    if (auto failure = daemon.follow(std::move(events), deadline)) {
        return *failure;
    }
    if (auto failure = daemon.call("Scan", {}, deadline)) {
        return with_advice(*failure);
    }

    askAgain = Clock::now() + kAskAgain;
    enough = std::min(enough, Clock::now() + kLongestScan);
    while (!gone && Clock::now() < std::min(enough, deadline)) {
        if (Clock::now() >= askAgain) {
            askAgain = kNever;
            daemon.call_later(
                "Scan", {}, [](const std::optional<Failure>&) {}, deadline);
        }
        if (auto failure = daemon.step(std::min({enough, deadline, askAgain}))) {
            return *failure;
        }
    }
    if (gone) {
        return failure_of_daemon_gone();
    }
    if (!announced && Clock::now() >= deadline) {
        return Failure{ExitStatus::TimedOut, "the scan found nothing new in time", "", ""};
    }
    return daemon.get("AccessPoints", deadline);
}

std::string security(const Json& network)
{
    if (network["wpa_psk"] == true) {
        return "WPA-PSK";
    }
    return network["encrypted"] == true ? "other" : "open";
}

Style style_of(int bars)
{
    return bars >= 3 ? Style::Good : bars >= 1 ? Style::Plain : Style::Bad;
}

} // namespace

Table networks_table(const Json& networks, const Terminal& terminal)
{
    const auto head = [&terminal](const char* text) {
        return Table::Cell{text, terminal.before(Style::Heading), terminal.after(Style::Heading)};
    };
    Table table;
    table.add({head("SIGNAL"), head("DBM"), head("SECURITY"), head("NETWORK")});
    for (const Json& network : networks) {
        const int bars = network["bars"].get<int>();
        const Style style = network["joinable"] == true ? style_of(bars) : Style::Faint;
        table.add({{drawn_bars(bars, terminal.unicode()), terminal.before(style), terminal.after(style)},
                   {network["signal"].dump(), "", ""},
                   {security(network), "", ""},
                   {escaped(network["ssid"].get<std::string>()), "", ""}});
    }
    return table;
}

std::optional<Failure> run_scan(Daemon& daemon, const Arguments& arguments, Output& output)
{
    const Deadline deadline = Clock::now() + arguments.timeout;
    if (auto failure = check_mode(daemon, deadline)) {
        return failure;
    }
    auto networks = scan(daemon, deadline);
    if (!networks) {
        return networks.failure();
    }
    if (output.json()) {
        for (const Json& network : networks.value()) {
            output.object("network", network);
        }
    } else if (networks.value().empty()) {
        output.line("No networks in range.");
    } else {
        output.table(networks_table(networks.value(), output.terminal()));
    }
    return std::nullopt;
}

} // namespace client
