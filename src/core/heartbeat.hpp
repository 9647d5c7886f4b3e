#pragma once

#include <systemd/sd-event.h>

/**
 * Has the loop wake up once a second for the life of the process, deliberately. The timer's accuracy is left
 * to sd-event, so the period is between 1 and 1.25 seconds.
 */
void start_heartbeat(sd_event* event);
