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

/**
 * A connection that is closed with whatever has not been written yet: for the private connections of calls. A
 * call that was answered has been written; flushing one that was given up would wait without end for a bus
 * that does not read.
 */
using BusPtr = std::unique_ptr<sd_bus, ReleaseWith<sd_bus_close_unref>>;
using MessagePtr = std::unique_ptr<sd_bus_message, ReleaseWith<sd_bus_message_unref>>;
using CredsPtr = std::unique_ptr<sd_bus_creds, ReleaseWith<sd_bus_creds_unref>>;
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

    /** The name of the error; null when the record has none. */
    const char* name() const { return error_.name; }
    bool has_name(const char* name) const { return sd_bus_error_has_name(&error_, name) > 0; }

    /** The message text; an empty text, never null, when the record has none. */
    const char* message() const { return error_.message != nullptr ? error_.message : ""; }

private:
    sd_bus_error error_{};
};
