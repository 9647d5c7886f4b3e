#pragma once

#include <memory>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

/** Owners for what libsystemd hands out. Each releases its resource when it goes out of scope. */

template <auto Release>
struct ReleaseWith
{
    template <typename T>
    void operator()(T* resource) const
    {
        Release(resource);
    }
};

/** A connection that is flushed and closed: for the private connections of a single call. */
using BusPtr = std::unique_ptr<sd_bus, ReleaseWith<sd_bus_flush_close_unref>>;
using MessagePtr = std::unique_ptr<sd_bus_message, ReleaseWith<sd_bus_message_unref>>;
using SlotPtr = std::unique_ptr<sd_bus_slot, ReleaseWith<sd_bus_slot_unref>>;
using EventPtr = std::unique_ptr<sd_event, ReleaseWith<sd_event_unref>>;

/** An event source that is switched off before its reference is dropped, so that it can not fire any more. */
using EventSourcePtr = std::unique_ptr<sd_event_source, ReleaseWith<sd_event_source_disable_unref>>;

/** A bus error record, freed at the end of its scope. */
class BusError
{
public:
    BusError() = default;
    ~BusError() { sd_bus_error_free(&error_); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;

    sd_bus_error* get() { return &error_; }

    /** The message text; an empty text, never null, when the record has none. */
    const char* message() const { return error_.message != nullptr ? error_.message : ""; }

private:
    sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

/** Opens a private connection to the system bus into `bus`. Returns what sd_bus_open_system(3) returns. */
inline int open_system_bus(BusPtr& bus)
{
    sd_bus* opened = nullptr;
    const int result = sd_bus_open_system(&opened);
    bus.reset(opened);
    return result;
}

/** Opens a private connection to the user bus into `bus`. Returns what sd_bus_open_user(3) returns. */
inline int open_user_bus(BusPtr& bus)
{
    sd_bus* opened = nullptr;
    const int result = sd_bus_open_user(&opened);
    bus.reset(opened);
    return result;
}
