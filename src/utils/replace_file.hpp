#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

/**
 * Gives a file new contents as a whole: they are written to a temporary file beside it (path + ".tmp"), which
 * is then renamed. Whoever opens the path finds the old contents or the new ones, never a part of them, also
 * where storage is full. A link under the path is replaced, not followed.
 *
 * Nothing is flushed to a disk: this is for files that do not outlive a power cut anyway.
 *
 * @param mode permissions of the new file, whatever the umask
 * @return 0, or a negative errno with the old file in place and no temporary file left behind
 */
int utils_replace_file(const std::string& path, std::string_view contents, mode_t mode);
