#include "listeners/netlink_address_message.hpp"

#include <algorithm>
#include <cstring>

#include <arpa/inet.h>

namespace {

/** The attributes of an IPv4 address message start behind its netlink and address headers. */
constexpr size_t kAttributesOffset = 24;

/** The table with the label skips the first attribute, which is IFA_ADDRESS with 4 bytes of data. */
constexpr size_t kLabelAttributesOffset = 32;

constexpr unsigned short kHighestLabelType = 46;
constexpr unsigned short kHighestAddressType = 8;

const rtattr* attribute_at(const nlmsghdr* message, size_t offset)
{
    return reinterpret_cast<const rtattr*>(reinterpret_cast<const char*>(message) + offset);
}

const char* data_of(const rtattr* attribute)
{
    return reinterpret_cast<const char*>(attribute) + RTA_LENGTH(0);
}

} // namespace

void netlink_fill_attribute_table(const rtattr** table, unsigned short highestType, const rtattr* first,
                                  size_t byteCount)
{
    std::fill_n(table, highestType + 1, nullptr);
    const char* position = reinterpret_cast<const char*>(first);
    size_t left = byteCount;
    while (left >= sizeof(rtattr)) {
        const auto* attribute = reinterpret_cast<const rtattr*>(position);
        if (attribute->rta_len < sizeof(rtattr) || attribute->rta_len > left) {
            break;
        }
        if (attribute->rta_type <= highestType) {
            table[attribute->rta_type] = attribute;
        }
        const size_t step = RTA_ALIGN(attribute->rta_len);
        if (step >= left) {
            break;
        }
        position += step;
        left -= step;
    }
}

std::optional<AddressEvent> netlink_read_address_message(const nlmsghdr* message)
{
    const size_t length = message->nlmsg_len;

    std::array<const rtattr*, kHighestLabelType + 1> labels{};
    netlink_fill_attribute_table(labels.data(), kHighestLabelType,
                                 attribute_at(message, kLabelAttributesOffset), length);
    const rtattr* label = labels[IFA_LABEL];

    std::array<const rtattr*, kHighestAddressType + 1> addresses{};
    netlink_fill_attribute_table(addresses.data(), kHighestAddressType,
                                 attribute_at(message, kAttributesOffset), length);
    const rtattr* local = addresses[IFA_LOCAL];

    if (label == nullptr || local == nullptr) {
        return std::nullopt;
    }
    in_addr ip{};
    std::memcpy(&ip, data_of(local), sizeof(ip));
    std::array<char, 256> text{};
    inet_ntop(AF_INET, &ip, text.data(), text.size());

    return AddressEvent{
        .interface = data_of(label), .address = text.data(), .added = message->nlmsg_type == RTM_NEWADDR};
}
