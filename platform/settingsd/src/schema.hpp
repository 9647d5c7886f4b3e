#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace settingsd {

/** The value of a setting: D-Bus "b", "i" or "s". */
using Value = std::variant<bool, std::int32_t, std::string>;

/** The D-Bus type of a value, as a signature. */
const char* type_of(const Value& value);

/** What happens to a setting when everything is reset but what makes the unit the owner's is to stay. */
enum class Belongs { ToProduct, ToOwner };

/** One row of the table of settings. */
struct Setting
{
    const char* section;
    const char* key;
    Value defaultValue;
    Belongs belongs = Belongs::ToProduct;
    /** Why a value of the right type is not allowed, empty for one that is; null: all are. See rules.hpp. */
    std::string (*refusal)(const Value& value) = nullptr;
};

using Schema = std::span<const Setting>;

/** The settings of this device, section by section, with their defaults. Made once per process. */
Schema device_schema();

/**
 * Why the value, which is of the setting's type, is not allowed, in words that follow the setting's name;
 * empty when it is. A default is always allowed: what was read may be written back.
 */
std::string refusal_of(const Setting& setting, const Value& value);

/** The row of a setting, or null. */
const Setting* find_setting(Schema schema, std::string_view section, std::string_view key);

/** Whether the schema has any setting in the section. */
bool has_section(Schema schema, std::string_view section);

/**
 * The name of a device that nobody has named: model and serial number joined by a hyphen, of the serial
 * number only what follows its first hyphen when there is one, and of both only what is UTF-8: firmware and
 * configuration may hold any bytes, the bus carries text.
 */
std::string default_device_name(const std::string& model, const std::string& serial);

} // namespace settingsd
