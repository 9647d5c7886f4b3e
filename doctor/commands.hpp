#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "patience.hpp"

namespace doctor {

/** How a program ended that was run. */
struct Ran
{
    bool found = false;    /**< whether there is such a program */
    bool timedOut = false; /**< whether it was killed because its time was over */
    int status = -1;       /**< its exit status; -1 when it did not exit by itself */
    std::string output;    /**< standard output and standard error, as they came */

    bool succeeded() const { return found && !timedOut && status == 0; }
};

/** Programs of the system: tests play them. */
class Commands
{
public:
    using Words = std::vector<std::string>;

    Commands() = default;
    Commands(const Commands&) = delete;
    Commands& operator=(const Commands&) = delete;
    virtual ~Commands() = default;

    /** Where a program is found, by PATH and in the folders for administrators; empty when it is nowhere. */
    virtual std::string find(const std::string& program) = 0;

    /**
     * Runs a program and waits for its end, never longer than a few seconds.
     *
     * @param words the program and its arguments; no shell is in between
     * @param input what the program reads as /dev/stdin; it is kept in memory only
     */
    virtual Ran run(const Words& words, const std::string& input = "") = 0;
};

/** The real ones. What does not end in time is killed, with all that it has started. */
class RealCommands : public Commands
{
public:
    static constexpr std::chrono::seconds kLongest{5};

    explicit RealCommands(const Patience& patience) : patience_(patience) {}

    std::string find(const std::string& program) override;
    Ran run(const Words& words, const std::string& input = "") override;

private:
    const Patience& patience_;
};

} // namespace doctor
