#include <algorithm>
#include <any>
#include <array>
#include <cstdlib>

#include "listeners/wpa_supplicant_dbus_listener.hpp"
#include "message_builder.hpp"
#include "support/captured_log.hpp"
#include "utils/dhcp_units.hpp"

// Notifications of wpa_supplicant, several in a row: whatever they hold, the states that are told on follow
// from those that were heard. A value of another type than wpa_supplicant's is the one thing that throws.

namespace {

size_t dhcpRestarts = 0;

/** What the listener told of the notification at hand. */
struct Told
{
    std::vector<std::string> states;
    size_t failures = 0;
    size_t lists = 0;
};

/** A listener that nobody tells of anything but this file. */
struct Station
{
    Station() : listener(loop())
    {
        listener.stateChanged.connect(
            [this](const std::string& state, const std::string&) { told.states.push_back(state); });
        listener.connectFailed.connect([this] { ++told.failures; });
        listener.bssListChanged.connect([this](const std::vector<std::string>&) { ++told.lists; });
    }

    static sd_event* loop()
    {
        // No bus: the SSID of a BSS can not be read.
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
        static sd_event* event = nullptr;
        fuzz::require(event != nullptr || sd_event_default(&event) >= 0, "an event loop");
        return event;
    }

    Told told;
    WpaSupplicantDbusListener listener;
};

/** Whether wpa_supplicant itself could have sent this. Of a variant in the variant only its inside counts. */
bool is_usual(const fuzz::ExpectedTypes& types)
{
    const auto isOrAbsent = [&types](const char* name, auto... usual) {
        const auto found = types.find(name);
        return found == types.end() || ((found->second == usual) || ...);
    };
    return isOrAbsent("State", "s", "o", "g") && isOrAbsent("CurrentBSS", "s", "o", "g") &&
           isOrAbsent("BSSs", "ao", "as", "ag");
}

bool is_nested(const fuzz::ExpectedTypes& types)
{
    return std::any_of(types.begin(), types.end(), [](const auto& entry) { return entry.second == "v"; });
}

void check_told(const Station& station, const std::string& before)
{
    const Told& told = station.told;
    const std::string after = station.listener.GetState();
    fuzz::require(told.states.size() <= 1 && told.failures <= 1 && told.lists <= 1, "each is told once");
    if (!told.states.empty()) {
        const std::string& state = told.states.front();
        fuzz::require(state == after && after != before, "a new state is told");
        fuzz::require(state == "completed" || state == "disconnected" || state == "failed",
                      "and only such a one");
    }
    fuzz::require(told.failures == 0 || before == "4way_handshake", "only the handshake can fail");
    fuzz::require(told.failures == 0 || after == "failed", "and then is known to have");
    fuzz::require(dhcpRestarts == 0 || after == "completed", "an address is asked for once associated");
}

void hear(Station& station, fuzz::Input& input)
{
    station.told = {};
    dhcpRestarts = 0;
    const std::string before = station.listener.GetState();
    const MessagePtr message = fuzz::new_signal();
    fuzz::ExpectedTypes types;
    bool valid = true;
    const size_t shape = input.below(4);
    if (shape == 0) {
        // What it says most of the time, which fuzz bytes would seldom spell.
        static constexpr std::array<const char*, 6> kStates = {
            "disconnected", "associating", "4way_handshake", "completed", "scanning", "failed"};
        sd_bus_message_append(message.get(), "a{sv}", 2, "State", "s", kStates[input.below(kStates.size())],
                              "CurrentBSS", "o", input.below(2) == 0 ? "/" : "/fi/w1/wpa_supplicant1/BSSs/1");
    } else {
        fuzz::MessageBuilder builder(input, {"State", "CurrentBSS", "BSSs"});
        builder.append_dictionary(message, types);
        valid = builder.valid();
    }
    fuzz::make_readable(message);
    try {
        fuzz::require(WpaSupplicantDbusListener::PropertyChangedCallback(message.get(), &station.listener,
                                                                         nullptr) == 0,
                      "a notification is always taken");
        fuzz::require(is_usual(types) || !valid || is_nested(types),
                      "another type does not pass for the right one");
        check_told(station, before);
        fuzz::require(station.told.lists == 0 || types.contains("BSSs"), "no list is made up");
    } catch (const std::bad_any_cast&) {
        fuzz::require(!is_usual(types), "only another type throws");
        fuzz::require(station.listener.GetState() == before, "and it does so before anything is remembered");
    }
}

} // namespace

// Units, replaced.

int dhcp_client_restart()
{
    return static_cast<int>(++dhcpRestarts);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    testing_support::captured_log().clear();
    Station station;
    fuzz::Input input(data, size);
    while (!input.empty()) {
        hear(station, input);
    }
    return 0;
}
