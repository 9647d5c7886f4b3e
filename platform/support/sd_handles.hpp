#pragma once

#include <memory>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

namespace vantora {

/** Calls a release function of libsystemd; those return null, which nobody needs. */
template <auto Release>
struct Releaser
{
    template <typename T>
    void operator()(T* object) const
    {
        Release(object);
    }
};

/** Flushes and closes a connection. One that the bus has not let in has nothing to flush, and would wait for
 * the bus. */
struct BusCloser
{
    void operator()(sd_bus* bus) const
    {
        if (sd_bus_is_ready(bus) <= 0) {
            sd_bus_close(bus);
        }
        sd_bus_flush_close_unref(bus);
    }
};

/** A connection of our own: what is queued is sent before it closes. */
using BusPtr = std::unique_ptr<sd_bus, BusCloser>;
using MessagePtr = std::unique_ptr<sd_bus_message, Releaser<sd_bus_message_unref>>;
using SlotPtr = std::unique_ptr<sd_bus_slot, Releaser<sd_bus_slot_unref>>;
using EventPtr = std::unique_ptr<sd_event, Releaser<sd_event_unref>>;
/** Disabled before it is released, so that the source never fires again whoever else holds it. */
using EventSourcePtr = std::unique_ptr<sd_event_source, Releaser<sd_event_source_disable_unref>>;

/** An sd_bus_error that frees what it holds. */
class BusError
{
public:
    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { sd_bus_error_free(&error_); }

    sd_bus_error* get() { return &error_; }
    const char* name() const { return error_.name; }
    const char* message() const { return error_.message; }
    bool has_name(const char* name) const { return sd_bus_error_has_name(&error_, name) > 0; }

private:
    sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

} // namespace vantora
