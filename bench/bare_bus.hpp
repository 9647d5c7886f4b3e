#pragma once

#include <memory>

#include <systemd/sd-bus.h>

#include "support/sd_bus_owners.hpp"

/** A connection as the library opens and closes it, without what the daemon does besides. */
using BareBusPtr = std::unique_ptr<sd_bus, ReleaseWith<sd_bus_flush_close_unref>>;

/** Opens a connection with sd_bus_open_user(3) or sd_bus_open_system(3). Returns null when that fails. */
inline BareBusPtr open_bare_bus(int (*open)(sd_bus**))
{
    sd_bus* opened = nullptr;
    return BareBusPtr(open(&opened) < 0 ? nullptr : opened);
}
