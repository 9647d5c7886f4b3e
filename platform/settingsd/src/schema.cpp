#include "schema.hpp"

#include <algorithm>
#include <array>

#include "korrin-info/korrin_info.hpp"
#include "rules.hpp"
#include "support/utf8.hpp"

namespace settingsd {

const char* type_of(const Value& value)
{
    constexpr std::array<const char*, std::variant_size_v<Value>> kTypes = {"b", "i", "s"};
    return kTypes.at(value.index());
}

Schema device_schema()
{
    // To add a setting, add a row; the rows of a section stand together.
    static const std::array kSettings = {
        Setting{"development", "killWifiOnBoot", false},
        Setting{
            "device", "deviceName",
            default_device_name(KorrinInfo::ThisModel::DisplayName(), KorrinInfo::ThisKorrin::SerialNumber()),
            Belongs::ToOwner, refusal_of_device_name},
        Setting{"display", "brightness", 80, Belongs::ToProduct, refusal_of_brightness},
        Setting{"locale", "language", "en", Belongs::ToProduct, refusal_of_language},
        Setting{"locale", "timezone", "UTC", Belongs::ToProduct, refusal_of_time_zone},
        Setting{"network", "enabled", true},
        Setting{"network", "mode", "Host", Belongs::ToProduct, refusal_of_mode},
        Setting{"network", "frequency", "2.4", Belongs::ToProduct, refusal_of_frequency},
    };
    return kSettings;
}

std::string refusal_of(const Setting& setting, const Value& value)
{
    const bool unruled = setting.refusal == nullptr || value == setting.defaultValue;
    return unruled ? std::string() : setting.refusal(value);
}

const Setting* find_setting(Schema schema, std::string_view section, std::string_view key)
{
    const auto found = std::find_if(schema.begin(), schema.end(), [&](const Setting& setting) {
        return section == setting.section && key == setting.key;
    });
    return found != schema.end() ? &*found : nullptr;
}

bool has_section(Schema schema, std::string_view section)
{
    return std::any_of(schema.begin(), schema.end(),
                       [&](const Setting& setting) { return section == setting.section; });
}

std::string default_device_name(const std::string& model, const std::string& serial)
{
    const auto hyphen = serial.find('-');
    return utf8_text(model + "-" + (hyphen == std::string::npos ? serial : serial.substr(hyphen + 1)), "");
}

} // namespace settingsd
