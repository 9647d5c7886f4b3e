#pragma once

#include <optional>

#include "arguments.hpp"
#include "daemon.hpp"
#include "failure.hpp"
#include "output.hpp"

namespace client {

/** Shows the state, and again whenever it has changed, until the bus is lost or nobody reads any more. The
 * failure, or nothing. */
std::optional<Failure> watch_status(Daemon& daemon, const Arguments& arguments, Output& output);

/** The same with the networks in range, for which the station is asked to look every ten seconds. */
std::optional<Failure> watch_networks(Daemon& daemon, const Arguments& arguments, Output& output);

} // namespace client
