#pragma once

#include <systemd/sd-bus.h>

/** Errors that are not wpa_supplicant's. Nothing is sent where the caller expects no answer. */

/** wpa_supplicant left while the call was on its way to it: the bus's own words for that. */
void answer_that_it_has_left(sd_bus_message* call);

/** The caller is not root. */
void answer_that_only_root_may(sd_bus_message* call);

/** The call could not be handed on, or its answer not handed back. @param result a negative errno */
void answer_that_it_failed(sd_bus_message* call, int result);
