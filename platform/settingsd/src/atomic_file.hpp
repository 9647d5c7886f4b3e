#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace settingsd {

/**
 * Replaces the file's contents so that at every moment, through a crash and a power cut too, the path holds
 * either the old contents or the new ones, whole: a temporary file beside it (path + ".tmp") is written,
 * synced and renamed over it, and the folder synced. When this returns 0 the new contents are on the disk.
 *
 * The file's mode is 0640. Returns 0, or a negative errno with the old file in place and no temporary file
 * left behind. One exception: a disk that fails at the last step, the sync of the folder, may show either
 * contents after the next start.
 */
int replace_file(const std::string& path, std::string_view contents);

/** Reads a regular file of at most `limit` bytes (-EFBIG above). Returns 0, or a negative errno. */
int read_file(const std::string& path, std::size_t limit, std::string& contents);

/**
 * Keeps a copy of the file beside it under the first free of the names path + ".damaged-1", "-2" and so on; a
 * file that has such a name already is never touched. Returns 0 with the name in `kept`, or a negative errno.
 */
int keep_aside(const std::string& path, std::string& kept);

} // namespace settingsd
