#pragma once

#include <string>

#include "schema.hpp"

namespace settingsd {

/*
 * What a setting may be. Each returns why the value is not allowed, in words that follow the setting's name
 * ("must be 0 to 100"), or an empty text when it is. The value is of the setting's type.
 */

/** "Host" or "Client". */
std::string refusal_of_mode(const Value& value);

/** "2.4" or "5". */
std::string refusal_of_frequency(const Value& value);

/** 1 to 32 bytes, which is what the name of a wireless network may have. */
std::string refusal_of_device_name(const Value& value);

/** 0 to 100. */
std::string refusal_of_brightness(const Value& value);

/** A language tag ("de", "de-CH", "zh-Hant-TW") or a locale's name ("de_CH.UTF-8"). */
std::string refusal_of_language(const Value& value);

/** A name of the time zone database ("UTC", "Europe/Zurich", "Etc/GMT+8"). */
std::string refusal_of_time_zone(const Value& value);

} // namespace settingsd
