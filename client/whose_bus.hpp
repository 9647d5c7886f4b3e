#pragma once

#include <string>

#include <sys/types.h>

#include "failure.hpp"

namespace client {

/**
 * Whether a process finds its user's ordinary bus, and not one that somebody told it.
 *
 * @param address DBUS_SESSION_BUS_ADDRESS, null when it is not set.
 * @param folder XDG_RUNTIME_DIR, null when it is not set.
 */
bool is_own_bus(const char* address, const char* folder, uid_t user);

/** The failure, or what is behind it where an ordinary user looks for the daemon on their own bus while root
 * has one: on a device the daemon is there. */
Failure with_whose_bus(Failure failure);

} // namespace client
