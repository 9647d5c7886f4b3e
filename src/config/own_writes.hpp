#pragma once

#include <cstddef>
#include <deque>
#include <string>

/**
 * The values of one setting that this program has stored and not been told of yet.
 *
 * The settings daemon may tell a program of its own writes, and what it tells of one arrives after the next
 * one may have been made. Taken for a wish of somebody else, it would undo that next one. Not for two threads
 * at a time.
 */
class OwnWrites
{
public:
    /** A value is about to be stored. A settings daemon that never tells of them costs no more than 32
     * values. */
    void remember(const std::string& value);

    /**
     * The settings daemon tells of a value. When it is one of those remembered, it and the earlier ones are
     * forgotten.
     *
     * @return whether it was one that this program has stored another one after: what is told is outdated,
     * unless somebody else has stored the earlier value once more
     */
    bool heard(const std::string& value);

private:
    static constexpr size_t kMost = 32;

    std::deque<std::string> unheard_; // oldest first
};
