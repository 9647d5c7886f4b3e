#pragma once

#include <optional>

#include "arguments.hpp"
#include "daemon.hpp"
#include "failure.hpp"
#include "output.hpp"

namespace client {

/** A sub-command: does what the arguments say, prints what came of it; the failure is left for the caller to
 * print. */
using CommandFunction = std::optional<Failure>(Daemon&, const Arguments&, Output&);

CommandFunction run_status;
/** on, off, mode, band, ssid: writes the property. */
CommandFunction run_setting;
CommandFunction run_scan;
CommandFunction run_connect;
CommandFunction run_disconnect;
CommandFunction run_monitor;
/** Without a sub-command: everything on one screen, until the person leaves. */
CommandFunction run_screen;

} // namespace client
