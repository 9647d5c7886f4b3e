#pragma once

#include <systemd/sd-event.h>

/**
 * Has the loop do the following as the first thing it does, whatever else has come for it by then. Not being
 * able to is ignored.
 */
void defer_startup(sd_event* event);

/**
 * Brings the radio into its stored configuration, or into the safe one when that can not be read; then
 * connects the reactions to events, and starts to follow the kernel's addresses. Never gives up: whatever
 * fails is logged and the next step taken. Runs once; the callback of sd_event_add_defer(3).
 *
 * @return always 0
 *
 * Announces `WiFiState` and, when the radio is on and its mode could be started, `Mode`.
 */
int init_wifi_callback(sd_event_source* source, void* userdata);
