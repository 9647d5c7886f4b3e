#pragma once

#include <cstdint>

#include <systemd/sd-event.h>

/**
 * A deadline on the loop's monotonic clock (sd_event_now(3), CLOCK_MONOTONIC).
 *
 * @param event the event loop
 * @param seconds whole seconds from the loop's current time; the product with 1,000,000 is formed in 32 bits
 * @return absolute time in microseconds
 */
uint64_t utils_event_time_after(sd_event* event, int32_t seconds);
