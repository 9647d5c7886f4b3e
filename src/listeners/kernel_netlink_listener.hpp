#pragma once

#include <future>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/uio.h>
#include <thread>

#include <linux/netlink.h>

#include "listeners/netlink_address_message.hpp"
#include "support/unique_fd.hpp"
#include "utils/guarded_signal.hpp"
#include "utils/stop_flag.hpp"

/**
 * Tells of IPv4 addresses that the kernel adds to or removes from interfaces (rtnetlink(7)), on a thread of
 * its own. The socket is polled: at most one datagram a second is handled, and an idle listener wakes every
 * two.
 *
 * Whoever owns a listener calls Stop before releasing it: destroying one whose thread is joinable ends the
 * process, and so does a second Start.
 */
class KernelNetlinkListener
{
public:
    KernelNetlinkListener() = default;
    ~KernelNetlinkListener() = default;
    KernelNetlinkListener(const KernelNetlinkListener&) = delete;
    KernelNetlinkListener& operator=(const KernelNetlinkListener&) = delete;

    /**
     * Starts the thread, and waits until that has opened its socket or given up.
     *
     * The socket's port id is the process id, which is also the one that the kernel gives to any other
     * netlink socket of the process while it is free: getifaddrs(3) opens such sockets for moments. Whoever
     * starts the listener on the thread that looks up addresses is not in the middle of a look-up, and from
     * then on look-ups are given other ids.
     *
     * Logs "[NETLINK] Starting kernel netlink listener..." (INFO); the thread logs "[NETLINK] Starting kernel
     * netlink task..." and each event, "[NETLINK] IP Event: Iface: %s IP Address: %s Status: %s" (INFO), and
     * "[NETLINK] Failed to create netlink socket: %s\n", "[NETLINK] Failed to bind netlink socket: %s\n",
     * "[NETLINK] OpenSocket() failed, exiting." and "[NETLINK] Invalid message length: %i" (ERR).
     */
    void Start();

    /**
     * Ends the thread's waits, closes the socket and joins the thread; a slot that is running is waited for.
     * Harmless when it does not run.
     */
    void Stop();

    /** Interface label, address, and whether it was added. Emitted on the listener thread. */
    GuardedSignal<std::string, std::string, bool> AddressEventSignal;

    /**
     * Handles a message that stands at the start of a NetlinkBuffer, and counts `remaining` down by its
     * aligned length. Messages other than address messages are skipped.
     *
     * @return 1 for a message whose length lies between that of its header and `remaining`; 0 for any other,
     *         which is logged and leaves `remaining` as it was
     */
    int check_message(const nlmsghdr* message, ssize_t& remaining);

private:
    /** Body of the thread; fulfils the promise once opening the socket has been tried. */
    void ListenTask(std::promise<void> opened);

    /** Returns 1, or 0 when there is no socket; logged. */
    int OpenSocket();

    /** Returns the number of bytes received, or -1, after a wait of two seconds when there was nothing. */
    ssize_t receive();

    void handle_address_message(const nlmsghdr* message) const;

    std::thread thread_;
    StopFlag stop_;
    UniqueFd socket_;
    sockaddr_nl address_{};
    iovec vector_{};
    msghdr header_{};
    alignas(nlmsghdr) NetlinkBuffer buffer_{};
};

/** The process's one listener; created before main runs and alive until the process ends. */
std::shared_ptr<KernelNetlinkListener> kernel_address_listener();
