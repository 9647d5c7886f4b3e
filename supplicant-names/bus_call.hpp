#pragma once

#include <systemd/sd-bus.h>

#include "support/sd_bus_owners.hpp"

/**
 * Calls a method whose only argument is a text, without waiting: `answered` is called with the answer,
 * however late, unless `slot` is released before.
 *
 * @return 0 or a positive number, or a negative errno
 */
int call_with_text(sd_bus* bus, SlotPtr& slot, const char* destination, const char* path,
                   const char* interface, const char* member, const char* text,
                   sd_bus_message_handler_t answered, void* userdata);

/** The same for a method of the bus itself. */
int call_bus(sd_bus* bus, SlotPtr& slot, const char* member, const char* text,
             sd_bus_message_handler_t answered, void* userdata);

/**
 * Has `heard` called, from when the bus has taken the rule, whenever a name changes hands.
 *
 * @param rule what else must hold, as a match rule says it ("arg0='a.name'")
 * @return 0 or a positive number, or a negative errno
 */
int follow_owners(sd_bus* bus, SlotPtr& slot, const char* rule, sd_bus_message_handler_t heard,
                  void* userdata);
