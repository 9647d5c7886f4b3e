#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <poll.h>

#include "deadline.hpp"
#include "failure.hpp"
#include "support/sd_bus_owners.hpp"
#include "values.hpp"

namespace client {

/**
 * The daemon's object on the user bus, and the connection to it.
 *
 * Nothing here starts the daemon: whether it runs is the device's business, and a question must not change
 * the answer. What arrives while a synchronous call waits is kept, and handed on by step() in the order in
 * which it was sent.
 */
class Daemon
{
public:
    /** What follow() hands on; all of them are called from step(). */
    struct Events
    {
        /** A property changed: the daemon's name of it, and the new value. */
        std::function<void(const std::string& property, const Json& value)> changed;
        /** A new list of networks in range: an array of objects. */
        std::function<void(const Json& networks)> networks;
        /** The daemon came to the bus (true) or left it. */
        std::function<void(bool running)> presence;
        /** A signal of the daemon had another type than it should and was passed over: words for people. */
        std::function<void(const std::string& text)> unreadable;
    };

    /** The outcome of a call that was made without waiting: nothing, or why it failed. */
    using Done = std::function<void(std::optional<Failure>)>;
    using Got = std::function<void(Result<Json>)>;

    /** Connects to the user bus. Without any word of where that is, the user's own place for it is tried. */
    static Result<std::unique_ptr<Daemon>> connect(Deadline deadline);

    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon();

    /** Reads one property. */
    Result<Json> get(const std::string& property, Deadline deadline);

    /** Writes a property of type 's' or 'u'; the failure, or nothing. */
    std::optional<Failure> set(const std::string& property, char type, const Json& value, Deadline deadline);

    /** Calls a method without arguments; the failure, or nothing. */
    std::optional<Failure> call(const char* method, Deadline deadline);

    /** Calls a method with text arguments without waiting: `done` is called from step(). The arguments are
     * treated as secret. */
    void call_later(const char* method, const std::vector<std::string>& arguments, Done done,
                    Deadline deadline);

    /** Writes a property without waiting, see set(): `done` is called from step(). */
    void set_later(const std::string& property, char type, const Json& value, Done done, Deadline deadline);

    /** Reads a property without waiting: `got` is called from step(). */
    void get_later(const std::string& property, Got got, Deadline deadline);

    /** From now on hands on what the daemon announces: whoever owns its name, and nobody else. When called
     * again, to the new receiver only. The failure, or nothing. */
    std::optional<Failure> follow(Events events, Deadline deadline);

    /** Handles one thing that has arrived, or waits for one until the deadline. Fails only when the bus is
     * lost. */
    std::optional<Failure> step(Deadline deadline);

    /** The same, and comes back as well when one of the other descriptors has what it is asked for in
     * `others`, whose `revents` are filled in. */
    std::optional<Failure> step(Deadline deadline, std::span<pollfd> others);

private:
    struct Pending;

    /** Closed without flushing: every call is waited for, and a bus that hangs must not keep the program from
     * ending. */
    using BusPtr = std::unique_ptr<sd_bus, ReleaseWith<sd_bus_close_unref>>;

    explicit Daemon(BusPtr bus);
    static int open_user_bus(BusPtr& opened);

    std::optional<Failure> wait_for_bus(Deadline deadline);
    std::optional<Failure> ask_owner(Deadline deadline);
    bool is_believed(sd_bus_message* signal) const;
    void pass_over(const char* member) const;
    int wait(Deadline deadline, std::span<pollfd> others);
    Result<MessagePtr> make_call(const char* interface, const char* member) const;
    Result<MessagePtr> send(MessagePtr request, Deadline deadline) const;
    void send_later(Result<MessagePtr> request, std::function<void(const Result<sd_bus_message*>&)> answered,
                    Deadline deadline);

    static int on_reply(sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int on_changed(sd_bus_message* signal, void* userdata, sd_bus_error* error);
    static int on_networks(sd_bus_message* signal, void* userdata, sd_bus_error* error);
    static int on_owner(sd_bus_message* signal, void* userdata, sd_bus_error* error);

    std::vector<std::unique_ptr<Pending>> pending_; // outlives the bus, which may still point to them
    Events events_;
    bool following_ = false;
    std::string owner_; // who has the daemon's name, by its own name on the bus; empty for nobody
    BusPtr bus_;
};

} // namespace client
