#pragma once

#include <systemd/sd-bus.h>

/**
 * Answers a call with the answer to the call that was handed on. Where the bus says that there is nobody to
 * answer it, the caller learns that wpa_supplicant has left, because it was there when the call came in.
 */
void hand_back(sd_bus_message* call, sd_bus_message* answer);
