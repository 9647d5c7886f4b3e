#pragma once

#include <string_view>

#include <nlohmann/json.hpp>

namespace settingsd {

/**
 * What can be read of a text that is not valid JSON: the settings (booleans, whole numbers and texts) of the
 * sections before the place of the damage. A last number that the damage may have cut short does not count.
 */
nlohmann::json salvage(std::string_view text);

} // namespace settingsd
