#pragma once

#include <string>

#include "support/unique_fd.hpp"

namespace settingsd {

/**
 * Keeps other processes that ask for the same lock out, until this object or the process ends. The lock is a
 * file of its own that stays behind, empty: the file that it protects is replaced at every change.
 */
class FileLock
{
public:
    /**
     * Takes the lock; one that is held already, and whose file is still there, is kept. Returns 0, -EBUSY
     * when another process holds it, or another negative errno.
     */
    int take(const std::string& path);

private:
    UniqueFd file_;
};

} // namespace settingsd
