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
 * The file's mode is 0640. Returns 0, or a negative errno with the old file in place: where only the last
 * step fails, the sync of the folder, the old file gets its name back, under which a second one (path +
 * ".old") has kept it until then.
 *
 * `settled` becomes true when this returns 0, and is left alone by a failure that touched nothing. It becomes
 * false where the folder could not be synced with the old file in place either: a restart may then find
 * either contents, and what the path shall hold must be written again.
 */
int replace_file(const std::string& path, std::string_view contents, bool& settled);

/** Reads a regular file of at most `limit` bytes (-EFBIG above). Returns 0, or a negative errno. */
int read_file(const std::string& path, std::size_t limit, std::string& contents);

/**
 * Keeps a copy of the file beside it under the first free of the names path + ".damaged-1", "-2" and so on; a
 * file that has such a name already is never touched. A file that is kept already is not kept twice.
 * Returns 0 with the name in `kept`, or a negative errno.
 */
int keep_aside(const std::string& path, std::string& kept);

/**
 * Follows a path that is a symbolic link to what it leads to in the end, which need not be there. Returns 0
 * with that in `target`, or a negative errno (-ELOOP for a ring).
 */
int follow_links(const std::string& path, std::string& target);

} // namespace settingsd
