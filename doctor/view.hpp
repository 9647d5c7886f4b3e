#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "bus.hpp"
#include "commands.hpp"
#include "files.hpp"

namespace doctor {

/**
 * All that the checks see of the system. They have no other way to it, so that a test can show them a system
 * in which exactly one thing is broken.
 */
struct View
{
    const Files& files;
    Commands& commands;
    Bus& system; /**< the system bus */
    Bus& user;   /**< root's user bus */
    std::vector<std::string> interfaces;
    bool root = true;                       /**< whether we may look at everything */
    std::chrono::microseconds sinceBoot{0}; /**< the clock of systemd's monotonic time stamps */

    /** Whether the daemon was installed since the device was started, and leaves everything as it is until
     * the next start: what others hold or keep off is no fault before. */
    bool waits_for_boot() const { return files.exists("/run/vantora-network.wait-for-boot"); }
};

/** The names of the network interfaces. */
std::vector<std::string> interface_names();

/** What mends most of what an ordinary user cannot look at. */
constexpr const char* kAsRoot = "sudo vantora-doctor";

} // namespace doctor
