#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "listeners/control_socket.hpp"
#include "utils/stop_flag.hpp"

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
     * Ends a running thread, connects when there is no connection, and starts a new thread. Waits up to two
     * seconds for the socket to appear, and before that up to a second for one of a daemon that has said that
     * it ends to go away; without a socket the thread logs that and ends, and the next Start tries again.
     */
    virtual void Start() = 0;

    /**
     * Ends the thread and closes the connection. The thread's waits end at once, that for the answer to an
     * attachment included; a slot that is running is waited for. Harmless when there is none of either.
     */
    void Stop();

    /**
     * For when the daemon is about to be replaced, or has just been: goes on listening to the old one until
     * its socket has been replaced, or for a second, then closes that connection and starts anew. What the
     * old one has said by then, its farewell above all, is handed over; no further event is begun with two
     * seconds later.
     */
    void Restart();

    /**
     * Body of the listener thread: attaches, then hands every event to SignalEvent until stopped.
     *
     * An attachment that fails, or is not answered within ten seconds, while the daemon's socket is replaced
     * is made once more, to the new one; a new one that is not there yet is waited for up to two seconds.
     * Events that come before the answer are handed over as well.
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
    void expect_successor();

    /** Whether the listener is at work on another socket than that of the daemon that was said to end last.
     */
    bool follows_successor() const;

    /** The first half of Restart: everything but starting anew. */
    void retire();

    /** What both daemons' Start do, given the directory of their sockets. */
    void start_listening(const char* directory);

private:
    void follow_events();

    /** Attaches to whichever daemon is there, and logs when that is not possible. Returns true once attached.
     */
    bool attach();

    /** Asks over the present connection. */
    bool ask_to_attach();

    /** Whether the socket is not the one of the present connection any more: always where another one is in
     * its place, and where it is just gone unless the connection is attached. */
    bool is_replaced(bool attached) const;

    /** Connects to the socket that is there, or comes within two seconds. */
    void connect_to_successor();

    /** Stores a new connection. */
    void take(ControlSocket opened);

    /** Waits up to a second until the socket of a daemon that ends is gone or replaced; for the main thread.
     */
    void await_replacement();

    void end_thread();

    /** Waits up to a second for an event. Returns false when waiting failed for good. */
    bool wait_for_event() const;

    /** Hands over all events that have arrived. */
    void receive_pending();

    /** Hands over what arrived before the thread was asked to end, as long as that is wanted. */
    void receive_rest();

    /** Receives one message and hands it over. Lowers the length to that of the message. */
    void receive_one(size_t& length);

    void hand_over(const char* event);

    std::thread thread_;
    WpaCtrlPtr connection_; ///< of the thread while it runs
    std::string path_;      ///< of the control socket
    mutable std::mutex filesMutex_;
    std::optional<SocketFile> connectedTo_; ///< what the latest connection was made to
    std::optional<SocketFile> leaving_;     ///< that of the daemon that was said to end last
    std::atomic<bool> successorExpected_ = false;
    std::atomic<bool> listening_ = false;
    std::chrono::steady_clock::time_point restUntil_; ///< looked at by the thread only once it is stopped
    StopFlag stop_;
    int fd_ = -1;
};
