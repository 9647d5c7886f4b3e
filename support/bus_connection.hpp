#pragma once

#include <chrono>

#include <systemd/sd-bus.h>

#include "support/sd_bus_owners.hpp"

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

/**
 * The same for a call that has a limit of its own: the bus is given up after that time already.
 *
 * @param time how long to wait at most, in microseconds; the time-out of a call holds where it is shorter
 */
int open_system_bus(BusPtr& bus, std::chrono::microseconds time);

/** As the first, for the user bus. Returns what sd_bus_open_user(3) returns. */
int open_user_bus(BusPtr& bus, LetIn letIn = LetIn::Awaited);

/**
 * Works a connection that has just been opened until the bus has let it in. A bus that refuses to, or does
 * not in time, is given up: the connection is closed, and calls over it fail at once.
 *
 * @param time how long to wait, in microseconds; an hour at most is waited
 * @return 0 once the bus has let the connection in, or the negative errno of what went wrong: -ETIMEDOUT when
 * the time was over
 */
int await_letting_in(sd_bus* bus, std::chrono::microseconds time);

/** The same within the time-out of a call on this connection, 25 s where nothing else is said. */
int await_letting_in(sd_bus* bus);
