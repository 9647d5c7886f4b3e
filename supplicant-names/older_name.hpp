#pragma once

#include <cstdint>
#include <functional>

#include <systemd/sd-bus.h>

#include "support/sd_bus_owners.hpp"

/**
 * The older name: ours once it is asked for and nobody else has it, for as long as the connection lasts.
 *
 * It is never waited for in the bus's queue, and never taken from somebody: a wpa_supplicant that asks for it
 * and does not get it at once gives up its start.
 */
class OlderName
{
public:
    /** @param bus borrowed; the connection that is to own it */
    explicit OlderName(sd_bus* bus) : bus_(bus) {}

    OlderName(const OlderName&) = delete;
    OlderName& operator=(const OlderName&) = delete;

    /**
     * Begins to follow who owns it.
     *
     * @param free called when it may be worth while to take it: its owner, somebody else, has given it up, or
     * the bus has refused it a while ago
     * @return 0 or a positive number, or a negative errno
     */
    int follow(std::function<void()> free);

    /** Takes it if nobody has it. */
    void take();

private:
    static int taken(sd_bus_message* answer, void* userdata, sd_bus_error* error);
    static int owner_changed(sd_bus_message* signal, void* userdata, sd_bus_error* error);

    static int retry(sd_event_source* source, uint64_t now, void* userdata);

    void complain(const char* text);
    void try_later();

    sd_bus* bus_;
    std::function<void()> free_;
    bool wanted_ = false;     // ours, or asked for
    bool complained_ = false; // of the last refusal
    SlotPtr match_;
    SlotPtr taking_;
    EventSourcePtr retry_;
};
