#pragma once

#include <atomic>
#include <ctime>
#include <optional>
#include <string>
#include <thread>

#include <sys/types.h>

#include "listeners/wpa_ctrl_owner.hpp"
#include "utils/stop_flag.hpp"

/** Tells a socket file from its successor at the same path. */
struct SocketFile
{
    dev_t device = 0;
    ino_t inode = 0;
    time_t made = 0;
    long madeNanoseconds = 0;

    bool operator==(const SocketFile&) const = default;
};

/**
 * Follows the events of a control socket on a thread of its own (wpa_ctrl_attach of the client library).
 *
 * All operations but SignalEvent are for one thread, the owner's. Whoever owns a listener calls Stop before
 * releasing it: destroying one whose thread is joinable ends the process.
 */
class WpaSocketListener
{
public:
    WpaSocketListener() = default;
    virtual ~WpaSocketListener() = default;
    WpaSocketListener(const WpaSocketListener&) = delete;
    WpaSocketListener& operator=(const WpaSocketListener&) = delete;

    /**
     * Handles one event; runs on the listener thread.
     *
     * @param message NUL-terminated text of at most 4095 bytes, with the sender's priority prefix ("<3>")
     */
    virtual void SignalEvent(const char* message) = 0;

    /**
     * Connects when there is no connection, ends a running thread and starts a new one. Waits up to two
     * seconds for the socket to appear; without one the thread logs that and ends, and the next Start tries
     * again.
     */
    virtual void Start() = 0;

    /**
     * Ends the thread and closes the connection. The thread's waits end at once; a slot that is running, or
     * an attachment that hostapd has not answered (ten seconds), is waited for. Harmless when there is none
     * of either.
     */
    void Stop();

    /** Stop, then Start, for when the daemon has just been replaced (see ExpectSuccessor). */
    void Restart();

    /**
     * Body of the listener thread: attaches, then hands every event to SignalEvent until stopped.
     *
     * Logs "%s: Recv %s" (INFO) for each event, and (ERR) "%s: Not connected to socket - cannot listen.",
     * "%s: Cannot attach to socket - cannot listen.", "%s: Failed to get a valid fd - cannot listen." or
     * "%s: Failed to select hostapd fd", each of which ends the thread.
     */
    void ListenTask();

protected:
    /**
     * Says that the daemon of the present connection ends. The socket of that one gets up to a second to go
     * away before the next connection is made: a job of the service manager is answered before it is carried
     * out, and the old daemon would take the new connection with it. From any thread.
     */
    void ExpectSuccessor() { successorExpected_ = true; }

    /** What both daemons' Start do, given the directory of their sockets. */
    void StartListening(const char* directory);

private:
    /** Waits up to a second for an event. Returns false when waiting failed for good. */
    bool WaitForEvent() const;

    /** Hands over all events that have arrived. */
    void ReceivePending();

    std::thread thread_;
    WpaCtrlPtr connection_;
    std::atomic<bool> successorExpected_ = false;
    std::optional<SocketFile> connectedTo_; ///< what the latest connection was made to
    StopFlag stop_;
    int fd_ = -1;
};

/**
 * Opens a control connection for an interface, after waiting for its socket: three looks a second apart, then
 * one more; the connection is tried whatever they show.
 *
 * @param directory folder of the daemon's control sockets
 * @param interface interface name, which is the socket's name
 * @return the connection, or null
 */
WpaCtrlPtr open_control_socket(const char* directory, const std::string& interface);
