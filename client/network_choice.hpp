#pragma once

#include "arguments.hpp"
#include "daemon.hpp"
#include "output.hpp"

namespace client {

/**
 * Finds out what `connect` is to join, before anybody types a passphrase or the present connection is
 * dropped: the device is a station, and the network is in range and can be joined in the way that the
 * arguments say. Without a name in the arguments it lets one be picked on the terminal.
 *
 * @return the arguments with the name, and without a question for a passphrase where the network is open;
 * status Refused when it cannot be joined, Silent as of look_around(), Usage when none was picked.
 */
Result<Arguments> choose_network(Daemon& daemon, Arguments arguments, Output& output);

} // namespace client
