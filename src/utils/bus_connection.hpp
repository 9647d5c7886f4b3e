#pragma once

#include "utils/sd_bus_owners.hpp"

/** Whether opening a connection waits until the bus has let it in. */
enum class LetIn {
    Awaited,
    Unneeded, // for a call that fails before it is sent
};

/**
 * Opens a private connection to the system bus into `bus`. A bus that takes the connection and then refuses
 * to let it in, or does not within the time-out of a call (25 s), is given up: calls over the connection fail
 * at once. The library would wait for 90 s. Returns what sd_bus_open_system(3) returns.
 */
int open_system_bus(BusPtr& bus, LetIn letIn = LetIn::Awaited);

/** The same for the user bus. Returns what sd_bus_open_user(3) returns. */
int open_user_bus(BusPtr& bus);
