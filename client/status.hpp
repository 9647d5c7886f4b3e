#pragma once

#include <string>
#include <string_view>

#include "daemon.hpp"
#include "table.hpp"
#include "terminal.hpp"

namespace client {

/**
 * Reads the state as the fields of JSON, property by property: all at once would fetch the networks in range,
 * too, and fails as a whole on a device whose bands the daemon does not know. What it refuses to tell is
 * null.
 */
Result<Json> read_status(Daemon& daemon, Deadline deadline);

/** The state for people: what makes sense in this mode, a label and a value in each row. */
Table status_table(const Json& fields, const Terminal& terminal);

/** Whether the field says something in this mode. */
bool is_shown(std::string_view field, std::string_view mode);

/** How a field's value is to look: good news, bad news, or neither. */
Style field_style(const Json& value);

/** A field's value for people, on one line, harmless to the terminal. */
std::string field_text(const std::string& field, const Json& value);

} // namespace client
