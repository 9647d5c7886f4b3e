#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "schema.hpp"

namespace settingsd {

/**
 * The settings file as JSON: {"section": {"key": value}}. Only what was set is in it; a setting that is not
 * has its default. Keys that this version does not know are another version's settings: they stay.
 */
struct Document
{
    nlohmann::json root = nlohmann::json::object();
    bool damaged = false;              ///< something was left out that is now only in the text it came from
    std::vector<std::string> findings; ///< what was odd, for the log
};

/** Parses the text of a settings file. Of a damaged one, everything that can be read is kept. */
Document parse_document(std::string_view text, Schema schema);

/** The text to write to the file. */
std::string to_text(const nlohmann::json& root);

/** The JSON value as a value of the same type as `example`; nothing when it is of another one. */
std::optional<Value> to_value(const nlohmann::json& value, const Value& example);

nlohmann::json to_json(const Value& value);

} // namespace settingsd
