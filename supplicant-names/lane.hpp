#pragma once

#include <list>
#include <memory>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include "bss_list.hpp"
#include "support/sd_bus_owners.hpp"

/**
 * A connection to the bus over which the calls of one caller are handed on.
 *
 * Each caller has one of its own for as long as it is there, because that is what it would have without this
 * program in between: its calls stay in order, the bus counts what it waits for by itself, and when it
 * leaves, the bus forgets what it had asked.
 */
class Lane
{
public:
    /**
     * @param event borrowed; the loop that serves the connection
     * @param list borrowed; learns from the answers
     */
    Lane(sd_event* event, BssList& list) : event_(event), list_(list) {}

    Lane(const Lane&) = delete;
    Lane& operator=(const Lane&) = delete;

    /**
     * Hands a call on, connecting first where that is necessary, and hands the answer back when it comes,
     * however late. Never waits.
     *
     * @param call borrowed; a received call, that this keeps until it is answered
     * @param destination the unique name of who is to get it
     * @param path the object that is called
     * @return 0 or a positive number, or a negative errno; the caller of this function then answers
     */
    int hand_on(sd_bus_message* call, const char* destination, const char* path);

    /** The connection; to be used right after a call has been handed on. */
    sd_bus* bus() { return bus_.get(); }

    /** Whether it is connected and nothing is awaited: somebody else may have it. */
    bool idle() const;

private:
    struct Awaited
    {
        Lane* lane;
        MessagePtr call;
        SlotPtr slot;
        std::list<Awaited>::iterator self; // where it stands in the list
    };

    int connect();
    int open();
    static int answered(sd_bus_message* answer, void* userdata, sd_bus_error* error);

    sd_event* event_;
    BssList& list_;
    std::unique_ptr<sd_bus, ReleaseWith<sd_bus_close_unref>> bus_; // not flushed: that would wait
    std::list<Awaited> awaited_;
};
