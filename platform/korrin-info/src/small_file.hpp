#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace KorrinInfo::detail {

/**
 * The contents of a regular file of at most 64 KiB, never waiting for anything (a FIFO or a device in its
 * place counts as unreadable). Nothing when it cannot be read or is larger.
 */
std::optional<std::string> read_small_file(const std::string& path);

/** The text without blanks, tabs and line ends around it. */
std::string_view trim(std::string_view text);

} // namespace KorrinInfo::detail
