#pragma once

#include <string>
#include <vector>

namespace client {

/** The word that was probably meant by a mistyped one: at most two letters wrong, missing, too many or
 * swapped; empty when there is none, or none that is nearer than the others. */
std::string nearest_word(const std::string& typed, const std::vector<std::string>& words);

} // namespace client
