#pragma once

#include <systemd/sd-bus.h>

/** Errors that are not wpa_supplicant's: texts that the bus itself has for the same. */

/** Nobody has the older name. */
void answer_that_nobody_is_there(sd_bus_message* call);

/** The owner of the older name left while the call was on its way to it or waiting there. */
void answer_that_it_has_left(sd_bus_message* call);

/** The caller is not root. */
void answer_that_only_root_may(sd_bus_message* call);

/** The call could not be handed on, or its answer not handed back. @param result a negative errno */
void answer_that_it_failed(sd_bus_message* call, int result);
