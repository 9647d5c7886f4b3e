#include "properties.hpp"

#include <algorithm>
#include <array>
#include <string_view>

namespace client {

namespace {

constexpr auto kProperties = std::to_array<PropertyName>({
    {"WiFiState", "radio", "Radio", "u"},
    {"Mode", "mode", "Mode", "s"},
    {"SSID", "ssid", "SSID", "s"},
    {"WiFiFrequency", "band", "Band", "s"},
    {"WiFiAvailableFrequencies", "bands", "Bands", "as"},
    {"WiFiAccessPointInitialised", "access_point_ready", "On the air", "b"},
    {"WiFiConnectedClients", "stations", "Stations", "u"},
    {"ClientSSID", "client_ssid", "Network", "s"},
    {"WiFiClientState", "client_state", "State", "s"},
    {"IPAddress", "address", "Address", "s"},
    {"MacAddress", "mac_address", "MAC address", "s"},
    {"WiFiSignal", "transmit_power", "Transmit power", "s"},
});

/** Whether the value came out of a message as this type, see read_value(). */
bool has_type(const Json& value, std::string_view type)
{
    const auto all = [&value](const auto& check) {
        return value.is_array() && std::ranges::all_of(value, check);
    };
    if (type == "s") {
        return value.is_string();
    }
    if (type == "u") {
        return value.is_number_unsigned();
    }
    if (type == "b") {
        return value.is_boolean();
    }
    if (type == "as") {
        return all([](const Json& element) { return element.is_string(); });
    }
    return all([](const Json& element) { return element.is_object(); }); // a(siib)
}

} // namespace

std::span<const PropertyName> known_properties()
{
    return kProperties;
}

const PropertyName* find_property(const std::string& daemonName)
{
    const auto* const found = std::ranges::find_if(
        kProperties, [&daemonName](const PropertyName& property) { return daemonName == property.daemon; });
    return found == kProperties.end() ? nullptr : found;
}

bool fits(const std::string& daemonName, const Json& value)
{
    if (daemonName == "AccessPoints") {
        return has_type(value, "a(siib)");
    }
    const PropertyName* const known = find_property(daemonName);
    return known == nullptr || has_type(value, known->type);
}

Json status_fields(const Json& properties)
{
    Json fields = Json::object();
    for (const PropertyName& property : kProperties) {
        const auto value = properties.find(property.daemon);
        fields[property.field] = value == properties.end() ? Json() : field_value(property, *value);
    }
    return fields;
}

Json field_value(const PropertyName& property, const Json& value)
{
    if (property.daemon == std::string_view("WiFiState")) {
        return value == 0 ? "off" : "on";
    }
    return value;
}

} // namespace client
