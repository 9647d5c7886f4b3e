#include "listeners/kernel_netlink_listener.hpp"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include <syslog.h>
#include <unistd.h>

#include "utils/thread_start.hpp"

namespace {

using namespace std::chrono_literals;

constexpr auto kNoDataWait = 2s;
constexpr auto kDatagramWait = 1s;

const auto kListener = std::make_shared<KernelNetlinkListener>();

} // namespace

std::shared_ptr<KernelNetlinkListener> kernel_address_listener()
{
    return kListener;
}

void KernelNetlinkListener::Start()
{
    syslog(LOG_INFO, "[NETLINK] Starting kernel netlink listener...");
    stop_.clear();
    std::promise<void> opened;
    const std::future<void> socketOpened = opened.get_future();
    thread_ = utils_start_thread(&KernelNetlinkListener::ListenTask, this, std::move(opened));
    socketOpened.wait();
}

void KernelNetlinkListener::Stop()
{
    stop_.set();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void KernelNetlinkListener::ListenTask(std::promise<void> opened)
{
    syslog(LOG_INFO, "[NETLINK] Starting kernel netlink task...");
    const int isOpen = OpenSocket();
    opened.set_value();
    if (isOpen == 0) {
        syslog(LOG_ERR, "[NETLINK] OpenSocket() failed, exiting.");
        return;
    }
    while (!stop_.is_set()) {
        ssize_t remaining = receive();
        if (remaining < 0) {
            continue;
        }
        // The kernel sends one message to a datagram. The message is not advanced: one that holds several
        // reports its first message once for each length of it that fits, and an invalid one goes on being
        // reported until the listener is stopped.
        while (remaining >= static_cast<ssize_t>(sizeof(nlmsghdr)) && !stop_.is_set()) {
            check_message(reinterpret_cast<const nlmsghdr*>(buffer_.data()), remaining);
        }
        stop_.wait_for(kDatagramWait);
    }
    socket_.reset();
}

int KernelNetlinkListener::OpenSocket()
{
    socket_.reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!socket_) {
        syslog(LOG_ERR, "[NETLINK] Failed to create netlink socket: %s\n", std::strerror(errno));
        return 0;
    }

    address_ = {};
    address_.nl_family = AF_NETLINK;
    address_.nl_pid = static_cast<uint32_t>(getpid());
    address_.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
    if (bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address_), sizeof(address_)) != 0) {
        syslog(LOG_ERR, "[NETLINK] Failed to bind netlink socket: %s\n", std::strerror(errno));
        socket_.reset();
        return 0;
    }

    vector_ = {.iov_base = buffer_.data(), .iov_len = kNetlinkReceiveSize};
    header_ = {};
    header_.msg_name = &address_;
    header_.msg_namelen = sizeof(address_);
    header_.msg_iov = &vector_;
    header_.msg_iovlen = 1;
    return 1;
}

ssize_t KernelNetlinkListener::receive()
{
    // What an earlier, longer datagram left must not be taken for attributes of this one.
    buffer_.fill('\0');

    const ssize_t received = recvmsg(socket_.get(), &header_, MSG_DONTWAIT);
    if (received >= 0) {
        return header_.msg_namelen == sizeof(address_) ? received : -1;
    }
    if (errno == EAGAIN || errno == EINTR) {
        stop_.wait_for(kNoDataWait);
    }
    return -1;
}

int KernelNetlinkListener::check_message(const nlmsghdr* message, ssize_t& remaining)
{
    const auto length = static_cast<ssize_t>(message->nlmsg_len);
    if (length < static_cast<ssize_t>(sizeof(nlmsghdr)) || length > remaining) {
        syslog(LOG_ERR, "[NETLINK] Invalid message length: %i", static_cast<int>(message->nlmsg_len));
        return 0;
    }
    if (message->nlmsg_type == RTM_NEWADDR || message->nlmsg_type == RTM_DELADDR) {
        handle_address_message(message);
    }
    remaining -= static_cast<ssize_t>(NLMSG_ALIGN(message->nlmsg_len));
    return 1;
}

void KernelNetlinkListener::handle_address_message(const nlmsghdr* message) const
{
    const auto event = netlink_read_address_message(message);
    if (!event) {
        return;
    }
    syslog(LOG_INFO, "[NETLINK] IP Event: Iface: %s IP Address: %s Status: %s", event->interface.c_str(),
           event->address.c_str(), event->added ? "Added" : "Removed");
    AddressEventSignal.emit(event->interface, event->address, event->added);
}
