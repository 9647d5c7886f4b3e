#include "value_decoder.hpp"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "dbus-helper/sdbus_utils.hpp"

namespace sdbus_utils::detail {

namespace {

/**
 * Reads one value of a basic type. sd-bus stores a boolean in an int and a text behind a pointer into the
 * message: `Wire` is what it stores, `T` what we keep. Returns 1, 0 at the end of the array, a negative
 * errno.
 */
template <typename T, typename Wire>
int read_basic(sd_bus_message* message, char type, T& value)
{
    Wire wire = {};
    const int r = sd_bus_message_read_basic(message, type, &wire);
    if (r > 0) {
        value = static_cast<T>(wire);
    }
    return r;
}

template <typename T, typename Wire>
int decode_basic(sd_bus_message* message, char type, std::any& value)
{
    T single = {};
    const int r = required(read_basic<T, Wire>(message, type, single));
    value = std::move(single);
    return r;
}

template <typename T, typename Wire>
int decode_array(sd_bus_message* message, char type, std::any& value)
{
    const std::string contents(1, type);
    int r = required(sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, contents.c_str()));
    if (r < 0) {
        return r;
    }
    std::vector<T> values;
    T element = {};
    while ((r = read_basic<T, Wire>(message, type, element)) > 0) {
        values.push_back(element);
    }
    value = std::move(values);
    return r < 0 ? r : sd_bus_message_exit_container(message);
}

/**
 * An array of numbers in one go, which is several times faster. sd-bus refuses that for a message in the
 * other byte order; then one by one.
 */
template <typename T>
int decode_numbers(sd_bus_message* message, char type, std::any& value)
{
    const void* data = nullptr;
    std::size_t size = 0;
    const int r = required(sd_bus_message_read_array(message, type, &data, &size));
    if (r == -EOPNOTSUPP) {
        return decode_array<T, T>(message, type, value);
    }
    if (r < 0) {
        return r;
    }
    std::vector<T> values(size / sizeof(T));
    if (!values.empty()) {
        std::memcpy(values.data(), data, size);
    }
    value = std::move(values);
    return r;
}

template <bool Array, typename T, typename Wire = T>
int decode_as(sd_bus_message* message, char type, std::any& value)
{
    if constexpr (Array && std::is_arithmetic_v<Wire> && std::is_same_v<T, Wire>) {
        return decode_numbers<T>(message, type, value);
    } else if constexpr (Array) {
        return decode_array<T, Wire>(message, type, value);
    } else {
        return decode_basic<T, Wire>(message, type, value);
    }
}

/** One value, or an array of values, of a basic type. Returns nothing for a type that is not listed. */
template <bool Array>
std::optional<int> decode_by_type(sd_bus_message* message, char type, std::any& value)
{
    switch (type) {
    case SD_BUS_TYPE_BYTE:
        return decode_as<Array, std::uint8_t>(message, type, value);
    case SD_BUS_TYPE_BOOLEAN:
        return decode_as<Array, bool, int>(message, type, value);
    case SD_BUS_TYPE_INT16:
        return decode_as<Array, std::int16_t>(message, type, value);
    case SD_BUS_TYPE_UINT16:
        return decode_as<Array, std::uint16_t>(message, type, value);
    case SD_BUS_TYPE_INT32:
        return decode_as<Array, std::int32_t>(message, type, value);
    case SD_BUS_TYPE_UINT32:
        return decode_as<Array, std::uint32_t>(message, type, value);
    case SD_BUS_TYPE_INT64:
        return decode_as<Array, std::int64_t>(message, type, value);
    case SD_BUS_TYPE_UINT64:
        return decode_as<Array, std::uint64_t>(message, type, value);
    case SD_BUS_TYPE_DOUBLE:
        return decode_as<Array, double>(message, type, value);
    case SD_BUS_TYPE_STRING:
    case SD_BUS_TYPE_OBJECT_PATH:
    case SD_BUS_TYPE_SIGNATURE:
        return decode_as<Array, std::string, const char*>(message, type, value);
    default:
        return std::nullopt;
    }
}

/** sd-bus limits how deep containers may stand in each other, and with that how deep this can recurse. */
int decode_variant(sd_bus_message* message, std::any& value, Decoded& decoded)
{
    const char* contents = nullptr;
    int r = enter_variant(message, contents);
    if (r < 0) {
        return r;
    }
    r = decode_value(message, contents, value, decoded);
    return r < 0 ? r : sd_bus_message_exit_container(message);
}

} // namespace

int enter_variant(sd_bus_message* message, const char*& contents)
{
    const int r = required(sd_bus_message_peek_type(message, nullptr, &contents));
    return r < 0 ? r : required(sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, contents));
}

int decode_value(sd_bus_message* message, const char* signature, std::any& value, Decoded& decoded)
{
    decoded = Decoded::Value;
    const std::string_view type(signature);
    if (type == "v") {
        return decode_variant(message, value, decoded);
    }
    if (type == "a{sv}") {
        PropertyMap dictionary;
        const int r = ParseProperties(message, dictionary);
        value = std::move(dictionary);
        return r;
    }
    // What is no basic type by its first character, or by the one behind that of the array, is not listed.
    const auto r = type[0] == SD_BUS_TYPE_ARRAY ? decode_by_type<true>(message, type[1], value)
                                                : decode_by_type<false>(message, type[0], value);
    if (r) {
        return *r;
    }
    decoded = Decoded::Skipped;
    return sd_bus_message_skip(message, signature);
}

} // namespace sdbus_utils::detail
