#pragma once

#include <systemd/sd-bus.h>

#include "support/sd_bus_owners.hpp"

/**
 * Appends everything that is left to read of one message to another that is not sealed yet: the same types,
 * the same values, in the same order, descriptors included.
 *
 * @return 0 or a positive number, or a negative errno: -EBADMSG where the message can not be read
 */
int copy_body(sd_bus_message* to, sd_bus_message* from);

/**
 * Makes the call that a received call becomes when it is handed on: interface, member, body and flags are
 * those of the call.
 *
 * @param bus the connection to send it over
 * @param destination who is to get it
 * @param path the object that is called
 * @param made holds it afterwards, not sealed yet
 * @return 0 or a positive number, or a negative errno
 */
int make_handed_call(sd_bus* bus, sd_bus_message* call, const char* destination, const char* path,
                     MessagePtr& made);

/**
 * Makes the answer to a call of an answer to the call that was handed on: a return with the same body, or an
 * error with the same name and the same body.
 *
 * @return 0 or a positive number, or a negative errno
 */
int make_answer(sd_bus_message* call, sd_bus_message* answer, MessagePtr& made);
