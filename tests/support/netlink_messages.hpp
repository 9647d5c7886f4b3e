#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

/** rtnetlink(7) messages, byte by byte: as the kernel sends them, and as it never would. */
namespace testing_support {

/** The bytes of 192.168.8.1. */
inline constexpr std::string_view kLocalAddress("\xC0\xA8\x08\x01", 4);

inline std::string ipv4_bytes(const char* text)
{
    std::string bytes(sizeof(in_addr), '\0');
    inet_pton(AF_INET, text, bytes.data());
    return bytes;
}

/** One attribute, padded to a multiple of four bytes. */
inline std::string attribute(unsigned short type, const std::string& data)
{
    const rtattr head = {.rta_len = static_cast<unsigned short>(RTA_LENGTH(data.size())), .rta_type = type};
    std::string bytes(reinterpret_cast<const char*>(&head), sizeof(head));
    bytes += data;
    bytes.resize(RTA_ALIGN(bytes.size()));
    return bytes;
}

/** An address message: netlink header, address header, and unless bare, the IFA_ADDRESS attribute that the
 * kernel puts first. */
class AddressMessage
{
public:
    explicit AddressMessage(uint16_t type = RTM_NEWADDR, const char* address = "192.168.8.1")
        : AddressMessage(type, Bare{})
    {
        add(IFA_ADDRESS, ipv4_bytes(address));
    }

    static AddressMessage bare(uint16_t type = RTM_NEWADDR) { return AddressMessage(type, Bare{}); }

    AddressMessage& raw(const std::string& more)
    {
        bytes_ += more;
        return *this;
    }
    AddressMessage& add(unsigned short type, const std::string& data) { return raw(attribute(type, data)); }
    AddressMessage& local(const char* address) { return add(IFA_LOCAL, ipv4_bytes(address)); }
    AddressMessage& label(const std::string& name) { return add(IFA_LABEL, name + '\0'); }

    /** The message, with its own length in its header. */
    std::string bytes() const { return with_length(bytes_); }

    /** The same bytes with their number in the netlink header, or with any other length. */
    static std::string with_length(std::string bytes)
    {
        return with_length(bytes, static_cast<uint32_t>(bytes.size()));
    }
    static std::string with_length(std::string bytes, uint32_t length)
    {
        std::memcpy(bytes.data(), &length, sizeof(length));
        return bytes;
    }

private:
    struct Bare
    {
    };

    AddressMessage(uint16_t type, Bare) : bytes_(NLMSG_LENGTH(sizeof(ifaddrmsg)), '\0')
    {
        std::memcpy(bytes_.data() + offsetof(nlmsghdr, nlmsg_type), &type, sizeof(type));
        bytes_[NLMSG_HDRLEN] = AF_INET;
    }

    std::string bytes_;
};

} // namespace testing_support
