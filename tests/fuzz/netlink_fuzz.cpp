#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include <arpa/inet.h>

#include "fuzz_input.hpp"
#include "listeners/kernel_netlink_listener.hpp"
#include "support/captured_log.hpp"

// One datagram of any bytes, in a buffer of exactly the size that the listener has: nothing outside of it is
// looked at, and a message as the kernel makes it is read right.

namespace {

struct Event
{
    std::string interface;
    std::string address;
    bool added;

    bool operator==(const Event&) const = default;
};

struct AlignedBuffer
{
    alignas(nlmsghdr) NetlinkBuffer bytes{};
};

/**
 * Reads a datagram that holds one address message, whole and in order, with what the manual page rtnetlink(7)
 * says of it and the macros of the kernel's headers.
 *
 * @return its event; nothing where the message is not of that kind
 */
std::optional<Event> read_by_the_book(const AlignedBuffer& buffer, size_t size)
{
    constexpr size_t kFirst = NLMSG_LENGTH(sizeof(ifaddrmsg));
    const auto* message = reinterpret_cast<const nlmsghdr*>(buffer.bytes.data());
    if (size < kFirst || message->nlmsg_len != size || size % NLMSG_ALIGNTO != 0) {
        return std::nullopt;
    }
    const rtattr* label = nullptr;
    const rtattr* local = nullptr;
    size_t at = kFirst;
    while (at + sizeof(rtattr) <= size) {
        const auto* attribute = reinterpret_cast<const rtattr*>(buffer.bytes.data() + at);
        const bool whole = attribute->rta_len >= RTA_LENGTH(0) && at + RTA_ALIGN(attribute->rta_len) <= size;
        const bool first = attribute->rta_type == IFA_ADDRESS && attribute->rta_len == RTA_LENGTH(4);
        if (!whole || (at == kFirst && !first)) {
            return std::nullopt;
        }
        label = attribute->rta_type == IFA_LABEL ? attribute : label;
        local = attribute->rta_type == IFA_LOCAL ? attribute : local;
        at += RTA_ALIGN(attribute->rta_len);
    }
    if (at != size || label == nullptr || local == nullptr || local->rta_len != RTA_LENGTH(4)) {
        return std::nullopt;
    }
    const auto* name = static_cast<const char*>(RTA_DATA(label));
    const size_t room = RTA_PAYLOAD(label);
    if (strnlen(name, room) == room) {
        return std::nullopt;
    }
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, RTA_DATA(local), text, sizeof(text));
    return Event{name, text, message->nlmsg_type == RTM_NEWADDR};
}

void check_event(const Event& event, std::string_view datagram)
{
    in_addr address{};
    fuzz::require(inet_pton(AF_INET, event.address.c_str(), &address) == 1, "the address is one");
    fuzz::require(datagram.find(event.interface) != std::string_view::npos,
                  "the interface stands in the datagram");
    fuzz::require(event.interface.find('\0') == std::string::npos, "the interface is a text");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    testing_support::captured_log().clear();
    size = std::min(size, kNetlinkReceiveSize);
    const auto buffer = std::make_unique<AlignedBuffer>();
    std::memcpy(buffer->bytes.data(), data, size);
    const auto* message = reinterpret_cast<const nlmsghdr*>(buffer->bytes.data());

    std::vector<Event> events;
    KernelNetlinkListener listener;
    listener.AddressEventSignal.connect(
        [&](const std::string& interface, const std::string& address, bool added) {
            events.push_back({interface, address, added});
        });
    auto remaining = static_cast<ssize_t>(size);
    size_t rounds = 0;
    while (remaining >= static_cast<ssize_t>(sizeof(nlmsghdr))) {
        const ssize_t before = remaining;
        if (listener.check_message(message, remaining) == 0) {
            fuzz::require(remaining == before, "an invalid message is left where it is");
            break;
        }
        fuzz::require(remaining < before, "a valid one is counted off");
        fuzz::require(message->nlmsg_len >= sizeof(nlmsghdr) &&
                          static_cast<ssize_t>(message->nlmsg_len) <= before,
                      "it was there as a whole");
        ++rounds;
    }
    fuzz::require(events.size() <= rounds, "one event at most for each time that a message is looked at");
    for (const Event& event : events) {
        check_event(event, {reinterpret_cast<const char*>(data), size});
        fuzz::require(event == events.front(), "it is the same message each time");
    }
    const bool address =
        rounds > 0 && (message->nlmsg_type == RTM_NEWADDR || message->nlmsg_type == RTM_DELADDR);
    fuzz::require(address || events.empty(), "only address messages are told of");
    const auto expected = read_by_the_book(*buffer, size);
    if (address && expected) {
        fuzz::require(events.size() == 1 && events.front() == *expected, "a good message is read right");
    }
    return 0;
}
