#pragma once

#include <string>

#include "arguments.hpp"
#include "failure.hpp"

namespace client {

/**
 * Gets the passphrase from where the arguments say: a prompt without echo, a file, standard input; empty for
 * an open network. Of file and input it is the first line, without its line break.
 *
 * @return the passphrase; a failure of status Usage when it cannot be had, or cannot be one: it has 8 to 63
 * characters.
 */
Result<std::string> read_passphrase(const Arguments& arguments);

/** What is wrong with a passphrase, or an empty text. */
std::string passphrase_fault(const std::string& passphrase);

} // namespace client
