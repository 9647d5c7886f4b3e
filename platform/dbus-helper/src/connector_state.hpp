#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include "dbus-helper/dbus_listener.hpp"
#include "signal_watch.hpp"
#include "support/sd_bus_owners.hpp"

namespace DbusHelper {

/**
 * The connection behind a DbusConnector. It has three states: closed; open; and lost, that is, the bus went
 * away under an open connection and a timer tries again, after one second first and then after twice the time
 * before, up to half a minute. There is no timer while the connection is open.
 */
struct DbusConnector::State
{
    State(sd_event* event, BusType type);
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State() = default;

    /** Opens the connection and installs the rules known so far. Returns 0, or a negative errno. */
    int open(Install mode);

    /** Forgets the rules and closes the connection. */
    void close();

    /** Adds a rule. On a lost connection it is installed with the next one. Returns 0, or a negative errno.
     */
    int listen(const SignalRule& rule);

    /** Whether the connection is there and nothing is known to be wrong with it. */
    bool is_open() const;

private:
    struct Listening
    {
        SignalRule rule;
        std::unique_ptr<SignalWatch> watch; ///< none while there is no connection
    };

    int install(Listening& listening, Install mode);
    int open_bus(Install mode);
    int watch_connection(Install mode);
    void drop_connection();
    void give_up_connection();

    static int on_disconnected(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int on_bus_answered(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int on_retry(sd_event_source* source, std::uint64_t now, void* userdata);

    // What stands on the loop or on the connection comes behind it, and so goes before it.
    EventPtr event_;
    BusType type_;
    bool lost_ = false;
    std::chrono::seconds retryDelay_;
    EventSourcePtr retry_;
    BusPtr bus_;
    SlotPtr disconnected_;
    SlotPtr probe_;
    std::list<Listening> rules_;
};

} // namespace DbusHelper
