#pragma once

#include <string>

namespace client {

/** How good a signal of so many dBm is: 0 (hardly there) to 4. */
int signal_bars(int dbm);

/** The bars as four columns: block characters, or ASCII where the locale has none. */
std::string drawn_bars(int bars, bool unicode);

} // namespace client
