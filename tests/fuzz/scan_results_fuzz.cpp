#include <algorithm>
#include <any>
#include <cerrno>
#include <set>

#include "core/client_operations.hpp"
#include "core/radio_state.hpp"
#include "dbus-helper/sdbus_utils.hpp"
#include "message_builder.hpp"
#include "radio/access_points.hpp"
#include "support/captured_log.hpp"

// BSS objects of wpa_supplicant with properties of any kind: the list is sorted and without doubles, and can
// always be sent. Values of another type than wpa_supplicant's are the one thing that throws.

namespace {

using sdbus_utils::TypedPropertyMap;

constexpr size_t kMostPaths = 24;

/** The BSSs that are listed, and what their properties will be made of. */
struct
{
    fuzz::Input* input = nullptr;
    std::vector<std::string> paths;
    size_t asked = 0;
    bool usual = true; ///< all values so far were of wpa_supplicant's types
} air;

template <typename T>
bool is_or_absent(const TypedPropertyMap& properties, const char* name)
{
    const auto found = properties.find(name);
    return found == properties.end() || std::any_cast<T>(&found->second.second) != nullptr;
}

bool is_usual(const TypedPropertyMap& properties)
{
    using Map = std::map<std::string, std::any>;
    if (!is_or_absent<std::vector<uint8_t>>(properties, "SSID") ||
        !is_or_absent<int16_t>(properties, "Signal") || !is_or_absent<bool>(properties, "Privacy") ||
        !is_or_absent<Map>(properties, "RSN")) {
        return false;
    }
    const auto rsn = properties.find("RSN");
    if (rsn == properties.end()) {
        return true;
    }
    const auto* elements = std::any_cast<Map>(&rsn->second.second);
    const auto keyMgmt = elements->find("KeyMgmt");
    return keyMgmt == elements->end() || std::any_cast<std::vector<std::string>>(&keyMgmt->second) != nullptr;
}

/** A BSS as there are many, with an SSID and a signal of any value. */
void append_usual(const MessagePtr& message, fuzz::Input& input)
{
    const std::string_view ssid = input.bytes().substr(0, 40);
    const auto signal = input.number<int16_t>();
    const auto privacy = static_cast<int>(input.below(2));
    sd_bus_message_open_container(message.get(), 'a', "{sv}");
    sd_bus_message_open_container(message.get(), 'e', "sv");
    sd_bus_message_append(message.get(), "s", "SSID");
    sd_bus_message_open_container(message.get(), 'v', "ay");
    sd_bus_message_append_array(message.get(), 'y', ssid.data(), ssid.size());
    sd_bus_message_close_container(message.get());
    sd_bus_message_close_container(message.get());
    sd_bus_message_append(message.get(), "{sv}", "Signal", "n", signal);
    sd_bus_message_append(message.get(), "{sv}", "Privacy", "b", privacy);
    sd_bus_message_close_container(message.get());
}

void check_list(const AccessPoints& list)
{
    fuzz::require(list.size() <= air.asked, "no more records than BSSs");
    std::set<std::string> names;
    for (size_t i = 0; i < list.size(); ++i) {
        fuzz::require(i == 0 || list[i - 1].signal >= list[i].signal, "strongest first");
        fuzz::require(!list[i].ssid.empty() && names.insert(list[i].ssid).second, "each name once");
        fuzz::require(list[i].privacy == 0 || list[i].privacy == 1, "encrypted or not");
    }
}

/** Reads what would go out for the property AccessPoints. */
void check_reply(const MessagePtr& reply)
{
    fuzz::make_readable(reply);
    fuzz::require(sd_bus_message_enter_container(reply.get(), 'a', "(siib)") > 0, "an array is sent");
    int weakest = INT16_MAX;
    const char* ssid = nullptr;
    int privacy = 0;
    int signal = 0;
    int wpaPsk = 0;
    int result = 0;
    while ((result = sd_bus_message_read(reply.get(), "(siib)", &ssid, &privacy, &signal, &wpaPsk)) > 0) {
        fuzz::require(signal <= weakest && *ssid != '\0', "sorted, and with names");
        fuzz::require(fuzz::is_valid_text(ssid), "which are texts");
        weakest = signal;
    }
    fuzz::require(result == 0, "all of it can be read");
}

} // namespace

// The radio, the bus and the calls, replaced.

RadioState read_radio_state()
{
    return RadioState::Client;
}

extern "C" int sd_bus_open_system(sd_bus** bus)
{
    return sd_bus_new(bus);
}

namespace sdbus_utils {

int GetProperty(sd_bus*, const char*, const char*, const char*, const char*, bool&, std::string&)
{
    return -ENOENT;
}

int GetProperty(sd_bus*, const char*, const char*, const char*, const char*, std::string&, std::string&)
{
    return -ENOENT;
}

int GetProperty(sd_bus*, const char*, const char*, const char*, const char*, std::vector<std::string>& value,
                std::string&)
{
    value = air.paths;
    return 0;
}

int GetAllProperties(sd_bus*, const std::string&, const std::string&, const std::string&,
                     TypedPropertyMap& properties)
{
    ++air.asked;
    const size_t choice = air.input->below(16);
    if (choice == 0) {
        return -ETIMEDOUT;
    }
    const MessagePtr message = fuzz::new_signal();
    if (choice < 10) {
        append_usual(message, *air.input);
    } else {
        fuzz::ExpectedTypes expected;
        fuzz::MessageBuilder(*air.input, {"SSID", "Signal", "Privacy", "RSN", "KeyMgmt"})
            .append_dictionary(message, expected);
    }
    fuzz::make_readable(message);
    const int result = ParsePropertiesWithType(message.get(), properties);
    air.usual = air.usual && is_usual(properties);
    return result;
}

int SetProperty(sd_bus*, const char*, const char*, const char*, const char*, bool, std::string&)
{
    return -ENOENT;
}

int SetProperty(sd_bus*, const char*, const char*, const char*, const char*, const std::string&, std::string&)
{
    return -ENOENT;
}

} // namespace sdbus_utils

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    testing_support::captured_log().clear();
    fuzz::Input input(data, size);
    air = {};
    air.input = &input;
    air.paths.assign(input.below(kMostPaths), "/fi/w1/wpa_supplicant1/Interfaces/1/BSSs/0");
    try {
        AccessPoints list;
        fuzz::require(wpa_supplicant_get_access_points(list) == 1, "there is a list");
        fuzz::require(air.usual, "another type does not pass for the right one");
        check_list(list);
        const MessagePtr reply = fuzz::new_signal();
        fuzz::require(get_wifi_access_points(reply.get()) >= 0, "it can be sent");
        check_reply(reply);
    } catch (const std::bad_any_cast&) {
        fuzz::require(!air.usual, "only another type throws");
    }
    return 0;
}
