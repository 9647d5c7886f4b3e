#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

/**
 * Reading of rtnetlink(7) address messages.
 *
 * The walks over the attributes count from the message's full length instead of from the room that is left
 * for attributes, and so may look up to 36 bytes beyond the message's end. A buffer therefore has room for
 * that behind the longest message, and the room holds zeros.
 */

/** The longest datagram that is received. */
constexpr size_t kNetlinkReceiveSize = 8192;

/** Room behind it for what the walks may look at, the NUL that ends an interface name included. */
constexpr size_t kNetlinkSlack = 64;

using NetlinkBuffer = std::array<char, kNetlinkReceiveSize + kNetlinkSlack>;

/** What one address message tells. */
struct AddressEvent
{
    std::string
        interface; ///< interface label, which for an alias such as "wlan0:1" is not the interface's name
    std::string address; ///< dotted quad
    bool added;          ///< added to the interface, or removed from it
};

/**
 * Fills a table of attributes, by type.
 *
 * @param table receives pointers to attributes; entries 0 to `highestType` are cleared first. A later
 * attribute of a type replaces an earlier one; higher types are skipped.
 * @param first where the attributes start
 * @param byteCount bytes to walk; the walk ends at the first attribute that does not fit into them
 */
void netlink_fill_attribute_table(const rtattr** table, unsigned short highestType, const rtattr* first,
                                  size_t byteCount);

/**
 * Reads an address message.
 *
 * @param message the message, in a NetlinkBuffer
 * @return the event; nothing when the message carries no label at the place where the kernel puts it for
 * IPv4, or no local address
 */
std::optional<AddressEvent> netlink_read_address_message(const nlmsghdr* message);
