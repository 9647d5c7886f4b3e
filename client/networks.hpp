#pragma once

#include <string>

#include "table.hpp"
#include "terminal.hpp"
#include "values.hpp"

namespace client {

/** The network of this name in a list of networks; null when it is not in it. */
const Json* find_network(const Json& networks, const std::string& ssid);

/**
 * A network's name in the way in which the daemon tells the name of the network joined: printable ASCII as it
 * is, other bytes escaped, and nothing from the first equals sign on.
 */
std::string station_spelling(const std::string& ssid);

/** Gives each network the field "joined": whether it is the one that the daemon calls `clientSsid`. Where
 * this fits several, none is marked. */
void mark_joined(Json& networks, const std::string& clientSsid);

/** What a network wants of those who join it: "WPA-PSK", "open", or "other" for what this device cannot join.
 */
std::string security_of(const Json& network);

/** The networks for people: bars, dBm, security, name, and which one is joined. */
Table networks_table(const Json& networks, const Terminal& terminal);

} // namespace client
