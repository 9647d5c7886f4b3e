#pragma once

#include "daemon.hpp"
#include "output.hpp"
#include "values.hpp"

namespace client {

/** Why the device cannot do what only a station can (status Refused): the radio is off, or it is an access
 * point. Nothing when it can. `what` is a verb with its object. */
std::optional<Failure> check_station(Daemon& daemon, const std::string& what, Deadline deadline);

/**
 * Has the station look for networks and waits for what it finds; follows the daemon for that.
 *
 * @return the list, in which the network joined is marked, see mark_joined(); status Silent when nothing was
 * found and nothing was heard of the station daemon either.
 */
Result<Json> look_around(Daemon& daemon, Output& output, Deadline deadline);

/** What is known now without looking anew, marked in the same way. */
Result<Json> known_networks(Daemon& daemon, Deadline deadline);

} // namespace client
