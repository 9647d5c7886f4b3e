#include "radio_bands.hpp"

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/nl80211.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "support/unique_fd.hpp"

namespace KorrinInfo::detail {

namespace {

using Bytes = std::span<const std::byte>;
using Clock = std::chrono::steady_clock;

/** Calls visit(type, payload) for each attribute, up to the first one that does not fit. */
template <typename Visit>
void for_each_attribute(Bytes bytes, Visit visit)
{
    while (bytes.size() >= sizeof(nlattr)) {
        nlattr header = {};
        std::memcpy(&header, bytes.data(), sizeof header);
        if (header.nla_len < sizeof header || header.nla_len > bytes.size()) {
            return;
        }
        visit(static_cast<unsigned>(header.nla_type) & static_cast<unsigned>(NLA_TYPE_MASK),
              bytes.subspan(sizeof header, header.nla_len - sizeof header));
        const std::size_t step =
            (static_cast<std::size_t>(header.nla_len) + NLA_ALIGNTO - 1) & ~std::size_t{NLA_ALIGNTO - 1};
        bytes = bytes.subspan(std::min(step, bytes.size()));
    }
}

/** One generic netlink request in the making. */
class Request
{
public:
    Request(std::uint16_t family, std::uint16_t flags, std::uint8_t command)
    {
        header_.nlmsg_type = family;
        header_.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
        header_.nlmsg_seq = 1;
        genlmsghdr generic = {};
        generic.cmd = command;
        generic.version = 1;
        append(&header_, sizeof header_);
        append(&generic, sizeof generic);
    }

    void add(std::uint16_t type, const void* payload, std::size_t size)
    {
        const nlattr header = {static_cast<std::uint16_t>(sizeof(nlattr) + size), type};
        append(&header, sizeof header);
        append(payload, size);
    }

    Bytes finish()
    {
        header_.nlmsg_len = static_cast<std::uint32_t>(bytes_.size());
        std::memcpy(bytes_.data(), &header_, sizeof header_);
        return bytes_;
    }

private:
    void append(const void* data, std::size_t size)
    {
        const std::size_t offset = bytes_.size();
        bytes_.resize(offset + ((size + NLA_ALIGNTO - 1) & ~std::size_t{NLA_ALIGNTO - 1}));
        if (size > 0) {
            std::memcpy(bytes_.data() + offset, data, size);
        }
    }

    nlmsghdr header_ = {};
    std::vector<std::byte> bytes_;
};

enum class Answer { Continues, Ended };

/** Hands the attributes of each answer in one datagram to `visit`. */
template <typename Visit>
Answer read_datagram(Bytes datagram, Visit visit)
{
    while (datagram.size() >= sizeof(nlmsghdr)) {
        nlmsghdr header = {};
        std::memcpy(&header, datagram.data(), sizeof header);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > datagram.size()) {
            return Answer::Ended;
        }
        if (header.nlmsg_type == NLMSG_DONE || header.nlmsg_type == NLMSG_ERROR) {
            return Answer::Ended;
        }
        constexpr std::size_t kHeaders = sizeof(nlmsghdr) + sizeof(genlmsghdr);
        if (header.nlmsg_type >= NLMSG_MIN_TYPE && header.nlmsg_len >= kHeaders) {
            visit(datagram.subspan(kHeaders, header.nlmsg_len - kHeaders));
        }
        const std::size_t step = NLMSG_ALIGN(static_cast<std::size_t>(header.nlmsg_len));
        datagram = datagram.subspan(std::min(step, datagram.size()));
    }
    return Answer::Continues;
}

/** Sends the request and hands the attributes of each answer to `visit` until the kernel is done or time is
 * up. */
template <typename Visit>
void exchange(int socket, Bytes request, Clock::time_point deadline, Visit visit)
{
    if (::send(socket, request.data(), request.size(), 0) < 0) {
        return;
    }
    std::vector<std::byte> buffer(std::size_t{32} * 1024);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd waiting = {socket, POLLIN, 0};
        if (left <= 0) {
            return;
        }
        const int ready = ::poll(&waiting, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return;
        }
        sockaddr_nl sender = {};
        socklen_t senderSize = sizeof sender;
        const ssize_t size = ::recvfrom(socket, buffer.data(), buffer.size(), 0,
                                        reinterpret_cast<sockaddr*>(&sender), &senderSize);
        if (size < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (size <= 0) {
            return;
        }
        if (sender.nl_pid != 0) {
            continue; // not the kernel
        }
        if (read_datagram(Bytes(buffer).first(static_cast<std::size_t>(size)), visit) == Answer::Ended) {
            return;
        }
    }
}

/** The number that the kernel gave to the nl80211 family; 0 when it has none. */
std::uint16_t find_nl80211(int socket, Clock::time_point deadline)
{
    Request request(GENL_ID_CTRL, NLM_F_ACK, CTRL_CMD_GETFAMILY);
    request.add(CTRL_ATTR_FAMILY_NAME, NL80211_GENL_NAME, sizeof NL80211_GENL_NAME);
    std::uint16_t family = 0;
    exchange(socket, request.finish(), deadline, [&family](Bytes attributes) {
        for_each_attribute(attributes, [&family](unsigned type, Bytes payload) {
            if (type == CTRL_ATTR_FAMILY_ID && payload.size() >= sizeof family) {
                std::memcpy(&family, payload.data(), sizeof family);
            }
        });
    });
    return family;
}

} // namespace

bool attributes_offer_5ghz(std::span<const std::byte> attributes)
{
    bool found = false;
    for_each_attribute(attributes, [&found](unsigned type, Bytes bands) {
        if (type == NL80211_ATTR_WIPHY_BANDS) {
            for_each_attribute(
                bands, [&found](unsigned band, Bytes) { found = found || band == NL80211_BAND_5GHZ; });
        }
    });
    return found;
}

bool kernel_offers_5ghz(int socket, std::uint32_t interface, std::chrono::milliseconds patience)
{
    const auto deadline = Clock::now() + patience;
    const std::uint16_t family = find_nl80211(socket, deadline);
    if (family == 0) {
        return false;
    }
    // A radio's description outgrows one message; the kernel splits it only for those who say they can read
    // it.
    Request request(family, NLM_F_DUMP, NL80211_CMD_GET_WIPHY);
    request.add(NL80211_ATTR_SPLIT_WIPHY_DUMP, nullptr, 0);
    if (interface != 0) {
        request.add(NL80211_ATTR_IFINDEX, &interface, sizeof interface);
    }
    bool found = false;
    exchange(socket, request.finish(), deadline,
             [&found](Bytes attributes) { found = found || attributes_offer_5ghz(attributes); });
    return found;
}

bool radio_offers_5ghz()
{
    constexpr auto kPatience = std::chrono::milliseconds(250);
    const UniqueFd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_GENERIC));
    return socket && kernel_offers_5ghz(socket.get(), ::if_nametoindex("wlan0"), kPatience);
}

} // namespace KorrinInfo::detail
