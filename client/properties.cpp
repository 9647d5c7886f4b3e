#include "properties.hpp"

#include <algorithm>
#include <array>
#include <string_view>

namespace client {

namespace {

constexpr auto kProperties = std::to_array<PropertyName>({
    {"WiFiState", "radio", "Radio"},
    {"Mode", "mode", "Mode"},
    {"SSID", "ssid", "SSID"},
    {"WiFiFrequency", "band", "Band"},
    {"WiFiAvailableFrequencies", "bands", "Bands"},
    {"WiFiAccessPointInitialised", "access_point_ready", "On the air"},
    {"WiFiConnectedClients", "stations", "Stations"},
    {"ClientSSID", "client_ssid", "Network"},
    {"WiFiClientState", "client_state", "State"},
    {"IPAddress", "address", "Address"},
    {"MacAddress", "mac_address", "MAC address"},
    {"WiFiSignal", "transmit_power", "Transmit power"},
});

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
