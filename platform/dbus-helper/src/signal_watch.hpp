#pragma once

#include <functional>
#include <string>

#include <systemd/sd-bus.h>

#include "dbus-helper/dbus_listener.hpp"
#include "support/sd_bus_owners.hpp"

namespace DbusHelper {

/** What a signal watch listens for, and what it calls. */
struct SignalRule
{
    std::string sender;
    std::string path; ///< empty: any object
    std::string interface;
    std::string member;
    DbusListener::Callback callback;
    void* userdata;

    /** Whether every name is one that D-Bus allows, so that it can stand in a match rule. */
    bool valid() const;
};

/** Whether the matches are installed before install() returns, or by the loop later. */
enum class Install { Waiting, InBackground };

/**
 * One signal rule on one connection.
 *
 * A match on a well-known name is not enough to know who speaks: a signal that is sent straight to our unique
 * name passes it, whoever sent it, and so does one that another match of this connection asked for. The watch
 * therefore follows who owns the name, from the bus daemon's own announcements, and calls back for nobody
 * else. The announcements, the answer to the first question and the signals arrive in the order in which the
 * bus daemon handled them, so the owner known is always the owner at the time of the signal.
 */
class SignalWatch
{
public:
    /** `onFailure` is called by the loop when the bus daemon will not tell who owns the sender's name. */
    SignalWatch(SignalRule rule, std::function<void()> onFailure);
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;
    ~SignalWatch() = default;

    /** Starts listening. Returns 0, or a negative errno. In the background a failure closes the connection.
     */
    int install(sd_bus* bus, Install mode);

private:
    int follow_owner(sd_bus* bus, Install mode);
    int ask_owner(sd_bus* bus);
    int ask_owner_in_background(sd_bus* bus);

    static int on_signal(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int on_owner_changed(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int on_owner_told(sd_bus_message* message, void* userdata, sd_bus_error* error);

    const SignalRule rule_;
    const std::function<void()> onFailure_;
    std::string owner_; ///< unique name of the sender; empty while nobody owns the name
    SlotPtr ownerChanged_;
    SlotPtr ownerAsked_;
    SlotPtr signal_;
};

} // namespace DbusHelper
