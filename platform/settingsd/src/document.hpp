#pragma once

#include <cstddef>
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

/** The largest text that is ever written. */
inline constexpr std::size_t kLargestFile = std::size_t{1024} * 1024;

/** The largest text that anything is looked for in. */
inline constexpr std::size_t kLargestReadable = 4 * kLargestFile;

/**
 * Parses the text of a settings file. Of a damaged one, everything that can be read is kept; of one that is
 * larger than what is written, only the settings of the schema. A setting whose value is of a wrong type or
 * not allowed is damage: it is left out, and so has its default.
 */
Document parse_document(std::string_view text, Schema schema);

/** The empty document that stands for a text larger than kLargestReadable. */
Document unreadable_document();

/** The text to write to the file: one that people read well, unless only a dense one is not too large. */
std::string to_text(const nlohmann::json& root);

/** The JSON value as a value of the same type as `example`; nothing when it is of another one. */
std::optional<Value> to_value(const nlohmann::json& value, const Value& example);

nlohmann::json to_json(const Value& value);

} // namespace settingsd
