#include <string>
#include <utility>

#include "dbus-helper/sdbus_utils.hpp"
#include "value_decoder.hpp"

namespace sdbus_utils {

namespace {

/** Reads the value of one dictionary entry and calls keep(signature, value) unless its type was skipped. */
template <typename Keep>
int parse_value(sd_bus_message* message, Keep keep)
{
    const char* signature = nullptr;
    int r = detail::enter_variant(message, signature);
    if (r < 0) {
        return r;
    }
    std::any value;
    auto decoded = detail::Decoded::Skipped;
    r = detail::decode_value(message, signature, value, decoded);
    if (r < 0) {
        return r;
    }
    if (decoded == detail::Decoded::Value) {
        keep(signature, std::move(value));
    }
    return sd_bus_message_exit_container(message);
}

/** Reads one dictionary entry and calls keep(key, signature, value) if its type is listed. */
template <typename Keep>
int parse_entry(sd_bus_message* message, Keep keep)
{
    const char* key = nullptr;
    int r = detail::required(sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &key));
    if (r < 0) {
        return r;
    }
    r = parse_value(message,
                    [&](const char* signature, std::any&& value) { keep(key, signature, std::move(value)); });
    return r < 0 ? r : sd_bus_message_exit_container(message);
}

/** Reads an "a{sv}" and calls keep(key, signature, value) for each entry whose type is listed. */
template <typename Keep>
int parse_dictionary(sd_bus_message* message, Keep keep)
{
    int r = detail::required(sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sv}"));
    if (r < 0) {
        return r;
    }
    while ((r = sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
        r = parse_entry(message, keep);
        if (r < 0) {
            return r;
        }
    }
    return r < 0 ? r : sd_bus_message_exit_container(message);
}

} // namespace

int ParseProperties(sd_bus_message* message, PropertyMap& properties)
{
    properties.clear();
    PropertyMap parsed;
    const int r = parse_dictionary(message, [&parsed](const char* key, const char*, std::any&& value) {
        parsed.insert_or_assign(key, std::move(value));
    });
    if (r < 0) {
        return r;
    }
    properties = std::move(parsed);
    return 0;
}

int ParsePropertiesWithType(sd_bus_message* message, TypedPropertyMap& properties)
{
    properties.clear();
    TypedPropertyMap parsed;
    const int r =
        parse_dictionary(message, [&parsed](const char* key, const char* signature, std::any&& value) {
            parsed.insert_or_assign(key, std::pair(std::string(signature), std::move(value)));
        });
    if (r < 0) {
        return r;
    }
    properties = std::move(parsed);
    return 0;
}

} // namespace sdbus_utils
