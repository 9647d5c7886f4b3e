#include "dbus-helper/sdbus_utils.hpp"

#include <algorithm>
#include <any>
#include <typeindex>
#include <typeinfo>

#include "message_builder.hpp"

// Both parsers of property maps, on dictionaries with values of every type that D-Bus has: they agree with
// each other and with what was put in, and leave the message's position behind the dictionary.

namespace {

using sdbus_utils::PropertyMap;
using sdbus_utils::TypedPropertyMap;

constexpr int kMarker = 4711;

/** What a value of a listed type is held as. */
const std::map<std::string, std::type_index>& documented_types()
{
    static const std::map<std::string, std::type_index> kTypes = {
        {"y", typeid(uint8_t)},
        {"b", typeid(bool)},
        {"n", typeid(int16_t)},
        {"q", typeid(uint16_t)},
        {"i", typeid(int32_t)},
        {"u", typeid(uint32_t)},
        {"x", typeid(int64_t)},
        {"t", typeid(uint64_t)},
        {"d", typeid(double)},
        {"s", typeid(std::string)},
        {"o", typeid(std::string)},
        {"g", typeid(std::string)},
        {"ay", typeid(std::vector<uint8_t>)},
        {"ab", typeid(std::vector<bool>)},
        {"an", typeid(std::vector<int16_t>)},
        {"aq", typeid(std::vector<uint16_t>)},
        {"ai", typeid(std::vector<int32_t>)},
        {"au", typeid(std::vector<uint32_t>)},
        {"ax", typeid(std::vector<int64_t>)},
        {"at", typeid(std::vector<uint64_t>)},
        {"ad", typeid(std::vector<double>)},
        {"as", typeid(std::vector<std::string>)},
        {"ao", typeid(std::vector<std::string>)},
        {"ag", typeid(std::vector<std::string>)},
        {"a{sv}", typeid(PropertyMap)},
    };
    return kTypes;
}

bool is_documented(const std::any& value)
{
    const auto& types = documented_types();
    return std::any_of(types.begin(), types.end(),
                       [&](const auto& row) { return row.second == std::type_index(value.type()); });
}

/** What a dictionary inside a value holds follows the same rules. */
void check_nested(const std::any& value)
{
    fuzz::require(is_documented(value), "a value is held as a documented type");
    if (const auto* map = std::any_cast<PropertyMap>(&value)) {
        for (const auto& entry : *map) {
            check_nested(entry.second);
        }
    }
}

void check_position(const MessagePtr& message)
{
    int marker = 0;
    fuzz::require(sd_bus_message_read_basic(message.get(), 'i', &marker) > 0 && marker == kMarker,
                  "the position is behind the dictionary");
}

void check_values(const TypedPropertyMap& typed, const PropertyMap& plain,
                  const fuzz::ExpectedTypes& expected)
{
    fuzz::require(typed.size() == plain.size() && typed.size() == expected.size(), "the same number of keys");
    for (const auto& [name, type] : expected) {
        const auto found = typed.find(name);
        fuzz::require(found != typed.end() && plain.contains(name), "each listed value is there");
        const auto& [signature, value] = found->second;
        fuzz::require(signature == type, "it has its signature");
        fuzz::require(value.type() == plain.at(name).type(), "both parsers hold it alike");
        check_nested(value);
        if (type != "v") {
            fuzz::require(std::type_index(value.type()) == documented_types().at(type), "as documented");
        }
    }
}

/** Something else in the place of a dictionary, or a damaged one: refused, and nothing is left behind. */
void check_refused(const MessagePtr& message)
{
    TypedPropertyMap typed = {{"old", {"s", std::string()}}};
    PropertyMap plain = {{"old", std::string()}};
    fuzz::require(sdbus_utils::ParsePropertiesWithType(message.get(), typed) < 0 && typed.empty(),
                  "refused, and the map is empty");
    sd_bus_message_rewind(message.get(), 1);
    fuzz::require(sdbus_utils::ParseProperties(message.get(), plain) < 0 && plain.empty(), "by both parsers");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const bool dictionary = input.below(8) != 0;
    fuzz::MessageBuilder builder(input, {"State", "SSID", "RSN", "enabled"});
    const MessagePtr message = fuzz::new_signal();
    if (!dictionary) {
        const std::string type = builder.append_any(message);
        fuzz::make_readable(message);
        if (type != "a{sv}") {
            check_refused(message);
        }
        return 0;
    }
    fuzz::ExpectedTypes expected;
    builder.append_dictionary(message, expected);
    fuzz::require(sd_bus_message_append(message.get(), "i", kMarker) >= 0, "the marker can be appended");
    fuzz::make_readable(message);
    if (!builder.valid()) {
        // The bus daemon lets no such text through. Where a skipped value holds it, nobody looks at it.
        TypedPropertyMap typed;
        PropertyMap plain;
        const int result = sdbus_utils::ParsePropertiesWithType(message.get(), typed);
        sd_bus_message_rewind(message.get(), 1);
        const int plainResult = sdbus_utils::ParseProperties(message.get(), plain);
        fuzz::require(result == plainResult && typed.size() == plain.size(), "both parsers judge alike");
        fuzz::require(result >= 0 || typed.empty(), "a failure leaves the map empty");
        return 0;
    }
    TypedPropertyMap typed = {{"old", {"s", std::string()}}};
    PropertyMap plain = {{"old", std::string()}};
    fuzz::require(sdbus_utils::ParsePropertiesWithType(message.get(), typed) == 0, "the dictionary is read");
    check_position(message);
    sd_bus_message_rewind(message.get(), 1);
    fuzz::require(sdbus_utils::ParseProperties(message.get(), plain) == 0, "by both parsers");
    check_position(message);
    check_values(typed, plain, expected);
    return 0;
}
