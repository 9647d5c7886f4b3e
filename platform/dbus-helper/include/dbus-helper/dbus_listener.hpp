#pragma once

#include <memory>
#include <string>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

namespace DbusHelper {

/** Which bus a connection is for. */
enum class BusType : int {
    System = 0,
    User = 1,
};

/**
 * Owns one bus connection, attached to an sd-event loop.
 *
 * A connection that is lost after it stood (the bus daemon ended or was restarted) is replaced by the loop by
 * itself, with everything that was listened for: a first attempt after one second, then after longer and
 * longer pauses up to half a minute. While the connection stands, no timer runs. Nothing is logged or
 * printed.
 *
 * All calls belong on the thread that runs the loop. No function throws, memory running out aside.
 */
class DbusConnector
{
public:
    /**
     * Opens the connection, waits until the bus has let us in, for as long as a call may take (25 s) and no
     * longer, and attaches it to the loop. Connected already: 0. After a loss, tries at once instead of
     * waiting for the next attempt of the loop. Returns exactly 0, or a negative errno; a failed call is not
     * repeated by itself.
     */
    int Connect();

    /** Forgets what was listened for and closes the connection; harmless when there is none. */
    void Disconnect();

    DbusConnector(const DbusConnector&) = delete;
    DbusConnector& operator=(const DbusConnector&) = delete;

protected:
    DbusConnector(sd_event* event, BusType busType);
    ~DbusConnector();

private:
    friend class DbusListener;

    struct State;
    std::unique_ptr<State> state_;
};

/** Listens for D-Bus signals; callbacks run on the thread that runs the loop. */
class DbusListener : public DbusConnector
{
public:
    /**
     * A signal callback, called as sd-bus calls it. The result is not used: every callback that is registered
     * for a signal is called. A callback may disconnect or destroy its listener. What it throws passes
     * through libsystemd to the caller of the loop, or ends the process where that library cannot be unwound.
     */
    using Callback = int (*)(sd_bus_message* message, void* userdata, sd_bus_error* error);

    /** A listener on the user bus. The loop is referenced for the life of the listener. */
    explicit DbusListener(sd_event* event);

    /** A listener on the given bus. */
    DbusListener(sd_event* event, BusType busType);

    ~DbusListener();

    /**
     * Calls `callback` for every signal that `sender` (a well-known name, followed through restarts of its
     * owner; nobody else is believed) emits with this interface and member from `path`; an empty path means
     * from any object. The owner is looked for and followed from then on, whether it is there yet or not.
     *
     * Returns exactly 0, or a negative errno: -ENOTCONN before Connect, -EINVAL for a name that D-Bus does
     * not allow or a null callback. While a lost connection is being replaced, it returns 0 and takes effect
     * then.
     */
    int ListenSignal(const std::string& sender, const std::string& path, const std::string& interface,
                     const std::string& member, Callback callback, void* userdata);
};

} // namespace DbusHelper
