#pragma once

#include <string>

#include "arguments.hpp"
#include "failure.hpp"

namespace client {

/** What a state word of the station means to people; empty for a word that nobody knows. */
std::string state_meaning(const std::string& state);

/** Puts into words the daemon's own text means and what to do about it. */
Failure with_advice(Failure failure);

/** What it means that the daemon refused to write the property of this sub-command on a device that is a
 * station or not. */
std::string refused_write_meaning(Command command, bool station);

/** Whether a state word says that the station is on its way into a network: what the daemon cannot leave yet.
 */
bool is_joining(const std::string& state);

/** Why there is no network to leave, told by the state word: the daemon has one answer for a station without
 * a network and for one that is still on its way into one. */
std::string disconnect_meaning(const std::string& state);

/** How an attempt whose last state word is this one is ended, as a clause; empty for none. */
std::string way_to_end(const std::string& lastState);

/** Why joining did not come to an end in time, told by the last state word. */
std::string waiting_reason(const std::string& lastState, const std::string& ssid);

/** The failure as one line for people, harmless to the terminal, with what the daemon said. */
std::string told(const Failure& failure);

} // namespace client
