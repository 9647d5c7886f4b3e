#include "words.hpp"

#include <algorithm>
#include <array>
#include <string_view>

#include "text.hpp"

namespace client {

namespace {

struct Phrase
{
    std::string_view key;
    std::string_view meaning;
};

std::string_view look_up(const auto& phrases, std::string_view key)
{
    for (const Phrase& phrase : phrases) {
        if (phrase.key == key) {
            return phrase.meaning;
        }
    }
    return {};
}

} // namespace

std::string state_meaning(const std::string& state)
{
    constexpr auto kMeanings = std::to_array<Phrase>({
        {"off", "not a station, or the radio is off"},
        {"", "nothing heard yet"},
        {"interface_disabled", "the radio is blocked"},
        {"inactive", "no network to look for"},
        {"disconnected", "not connected"},
        {"scanning", "looking for the network"},
        {"authenticating", "introducing itself to the access point"},
        {"associating", "asking the access point to be let in"},
        {"associated", "let in by the access point"},
        {"4way_handshake", "proving that it knows the passphrase"},
        {"group_handshake", "getting the network's keys"},
        {"completed", "connected"},
        {"failed", "the passphrase was refused"},
    });
    return std::string(look_up(kMeanings, state));
}

Failure with_advice(Failure failure)
{
    constexpr auto kAdvice = std::to_array<Phrase>({
        {"Wifi is off", "the radio is off; switch it on with 'vantora-wifi on'"},
        {"WiFi is not in client mode",
         "the device is an access point; make it a station with 'vantora-wifi mode client'"},
        {"WiFi is in unknown mode",
         "the device is neither access point nor station at the moment; try again, or set the mode"},
        {"Failed to start AP scan", "the scan could not be started; the station may still be starting up"},
        {"Failed to add network", "the network could not be set up; try again"},
    });
    if (const std::string_view advice = look_up(kAdvice, failure.daemonText);
        failure.status == ExitStatus::Refused && !advice.empty()) {
        failure.text = advice;
    }
    return failure;
}

std::string refused_write_meaning(Command command, bool station)
{
    switch (command) {
    case Command::On:
    case Command::Off:
        return "the radio could not be switched; the daemon's log says why";
    case Command::Band:
        return station
                   ? "the device is not an access point at the moment; the band is stored and used when it next is"
                   : "the access point could not be restarted with this band, which is stored all the same";
    case Command::Ssid:
        return "the access point could not be restarted with this name, which is stored all the same";
    default:
        return "the mode could not be changed; it is stored all the same, and tried again at the next start";
    }
}

bool is_joining(const std::string& state)
{
    constexpr auto kWords = std::to_array<std::string_view>(
        {"scanning", "authenticating", "associating", "associated", "4way_handshake", "group_handshake"});
    return std::ranges::find(kWords, state) != kWords.end();
}

std::string disconnect_meaning(const std::string& state)
{
    if (is_joining(state)) {
        return "the device is still trying to join a network, which cannot be left before that is done; "
               "'vantora-wifi off' or 'vantora-wifi mode host' ends the attempt";
    }
    // Between two tries it is disconnected, too.
    if (state == "disconnected") {
        return "there is no network to leave: the device is not connected; if it is still trying to join one, "
               "'vantora-wifi off' or 'vantora-wifi mode host' ends that";
    }
    return "there is no network to leave: the device is not connected";
}

std::string way_to_end(const std::string& lastState)
{
    if (lastState == "completed") {
        return "the device stays connected until 'vantora-wifi disconnect'";
    }
    return "the device goes on trying until 'vantora-wifi off' or 'vantora-wifi mode host'";
}

std::string waiting_reason(const std::string& lastState, const std::string& ssid)
{
    if (lastState == "completed") {
        return "connected to \"" + ssid + "\", but the network gave no address in time";
    }
    if (lastState == "authenticating" || lastState == "associating" || lastState == "associated") {
        return "an access point of \"" + ssid + "\" was found, but did not let the device in in time";
    }
    if (lastState == "4way_handshake" || lastState == "group_handshake") {
        return "the exchange of keys with \"" + ssid + "\" did not end in time";
    }
    return "no access point of \"" + ssid + "\" that can be joined was found in time";
}

std::string told(const Failure& failure)
{
    std::string line = escaped(failure.text);
    if (!failure.daemonText.empty()) {
        line += " (the daemon: \"" + escaped(failure.daemonText) + "\")";
    }
    return line;
}

} // namespace client
