#pragma once

#include <cstdint>
#include <string>

#include "arguments.hpp"
#include "values.hpp"

namespace client {

/** When something written holds: now, or it is only stored and waits for something. */
enum class Applied : std::uint8_t { Now, WhenOn, WhenHost };

/** What a setting's sub-command has done, as a sentence for people. */
std::string done_text(Command command, const std::string& value, Applied applied);

/** Why a write that the daemon took is not to be seen, when this is what is read instead. */
std::string without_effect(Command command, const Json& read);

/** A mode's name as the command line spells it; any other text comes back as it is. */
std::string word_of_mode(const std::string& text);

} // namespace client
