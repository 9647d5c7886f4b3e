#include "listeners/hostapd_socket_listener.hpp"

#include <algorithm>
#include <vector>

#include "fuzz_input.hpp"
#include "support/captured_log.hpp"

// Events of the control socket, each ended by a NUL, one after the other. A text that begins with "?" stands
// for a question: is the station with this record among those that have left?

namespace {

using Texts = std::vector<std::string>;

/** What the listener told, and the stations that have left as far as it told of them. */
struct Told
{
    Texts connected;
    Texts disconnected;
    std::vector<bool> enabled;
    size_t terminations = 0;

    size_t signals() const { return connected.size() + disconnected.size() + enabled.size() + terminations; }
};

bool contains(const std::string& text, const char* word)
{
    return text.find(word) != std::string::npos;
}

void check_station(const std::string& event, const Texts& told)
{
    const size_t blank = event.find(' ');
    fuzz::require(told.back() == (blank == std::string::npos ? event : event.substr(blank + 1)),
                  "the station is what follows the first blank");
}

/** An address as it can be found again in a record: two more characters behind its last colon. */
bool is_findable(const std::string& station)
{
    const size_t colon = station.rfind(':');
    return colon != std::string::npos && station.size() == colon + 3;
}

void hear(HostapdSocketListner& listener, const std::string& event, Told& told)
{
    const Told before = told;
    listener.SignalEvent(event.c_str());
    fuzz::require(told.signals() <= before.signals() + 1, "an event is told of once at most");

    if (contains(event, "AP-STA-CONNECTED")) {
        fuzz::require(told.connected.size() == before.connected.size() + 1, "a connect is told");
        check_station(event, told.connected);
        if (is_findable(told.connected.back())) {
            fuzz::require(listener.IsStationDisconnected(told.connected.back().c_str()) == 0, "it is here");
        }
    } else if (contains(event, "AP-STA-DISCONNECTED")) {
        fuzz::require(told.disconnected.size() == before.disconnected.size() + 1, "a disconnect is told");
        check_station(event, told.disconnected);
        fuzz::require(listener.IsStationDisconnected(told.disconnected.back().c_str()) == 1 ||
                          !is_findable(told.disconnected.back()),
                      "it has left");
    } else if (contains(event, "AP-ENABLED") || contains(event, "AP-DISABLED")) {
        fuzz::require(told.enabled.size() == before.enabled.size() + 1,
                      "a change of the access point is told");
        fuzz::require(told.enabled.back() == contains(event, "AP-ENABLED"), "with its direction");
        fuzz::require(listener.IsApEnabled() == told.enabled.back(), "and remembered");
    } else {
        fuzz::require((told.terminations > before.terminations) == contains(event, "CTRL-EVENT-T"),
                      "the end is told, and nothing else taken for it");
    }
}

void ask(const HostapdSocketListner& listener, const std::string& record, const Told& told)
{
    const int left = listener.IsStationDisconnected(record.c_str());
    fuzz::require(left == 0 || left == 1, "yes or no");
    const size_t colon = record.rfind(':');
    if (colon == std::string::npos || record.size() < colon + 3) {
        fuzz::require(left == 1, "what is no address is not counted");
        return;
    }
    const std::string address = record.substr(0, colon + 3);
    const bool everLeft =
        std::find(told.disconnected.begin(), told.disconnected.end(), address) != told.disconnected.end();
    fuzz::require(left == 0 || everLeft, "only one that has left counts as away");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    testing_support::captured_log().clear();
    Told told;
    HostapdSocketListner listener;
    listener.StationConnectedSignal.connect(
        [&](const std::string& station) { told.connected.push_back(station); });
    listener.StationDisconnectedSignal.connect(
        [&](const std::string& station) { told.disconnected.push_back(station); });
    listener.ApEnabledSignal.connect([&](bool enabled) { told.enabled.push_back(enabled); });
    listener.TerminatingSignal.connect([&] { ++told.terminations; });

    fuzz::Input input(data, size);
    while (!input.empty()) {
        const std::string text(input.up_to_nul());
        if (text.starts_with('?')) {
            ask(listener, text.substr(1), told);
        } else {
            hear(listener, text, told);
        }
    }
    const bool enabled = listener.IsApEnabled();
    listener.Reset();
    fuzz::require(listener.IsApEnabled() == enabled, "whether it is enabled stays known");
    for (const std::string& station : told.disconnected) {
        fuzz::require(!is_findable(station) || listener.IsStationDisconnected(station.c_str()) == 0,
                      "forgotten");
    }
    return 0;
}
