#pragma once

#include "table.hpp"
#include "terminal.hpp"
#include "values.hpp"

namespace client {

/** The networks for people: bars, dBm, security and name. */
Table networks_table(const Json& networks, const Terminal& terminal);

} // namespace client
