#include "listeners/netlink_address_message.hpp"

#include <array>
#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "support/netlink_messages.hpp"

namespace {

using testing_support::AddressMessage;
using testing_support::attribute;
using testing_support::kLocalAddress;

/** A message in a buffer on the heap that ends where the daemon's ends: a sanitizer sees every read beyond
 * it. */
class Received
{
public:
    explicit Received(const std::string& bytes) : buffer_(std::make_unique<NetlinkBuffer>())
    {
        buffer_->fill('\0');
        std::memcpy(buffer_->data(), bytes.data(), bytes.size());
    }

    std::optional<AddressEvent> read() const
    {
        return netlink_read_address_message(reinterpret_cast<const nlmsghdr*>(buffer_->data()));
    }

private:
    std::unique_ptr<NetlinkBuffer> buffer_;
};

TEST(NetlinkAddressMessage, TellsLabelAddressAndThatItWasAdded)
{
    const auto event = Received(AddressMessage().local("192.168.8.1").label("wlan0").bytes()).read();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->interface, "wlan0");
    EXPECT_EQ(event->address, "192.168.8.1");
    EXPECT_TRUE(event->added);
}

TEST(NetlinkAddressMessage, TellsThatAnAddressWasRemoved)
{
    const auto event =
        Received(AddressMessage(RTM_DELADDR).local("192.168.8.1").label("wlan0").bytes()).read();
    ASSERT_TRUE(event);
    EXPECT_FALSE(event->added);
}

TEST(NetlinkAddressMessage, TakesTheLocalAddressNotThatOfThePeer)
{
    const auto event =
        Received(AddressMessage(RTM_NEWADDR, "10.0.0.2").local("10.0.0.1").label("ppp0").bytes()).read();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->address, "10.0.0.1");
}

TEST(NetlinkAddressMessage, TellsNothingWithoutALocalAddress)
{
    EXPECT_FALSE(Received(AddressMessage().label("wlan0").bytes()).read());
}

TEST(NetlinkAddressMessage, TellsNothingWithoutALabel)
{
    EXPECT_FALSE(Received(AddressMessage().local("192.168.8.1").bytes()).read());
}

TEST(NetlinkAddressMessage, TellsNothingWhenTheLabelComesFirst)
{
    // The walk for the label starts behind the first eight bytes of attributes: in the middle of this one.
    const std::string message = AddressMessage::bare()
                                    .add(IFA_LABEL, std::string("wireless-lan\0\0\0", 16))
                                    .local("192.168.8.1")
                                    .bytes();
    EXPECT_FALSE(Received(message).read());
}

TEST(NetlinkAddressMessage, TellsNothingOfAMessageThatIsAllHeader)
{
    EXPECT_FALSE(Received(AddressMessage::bare().bytes()).read());
    EXPECT_FALSE(Received(AddressMessage::bare().bytes().substr(0, 16)).read());
}

TEST(NetlinkAddressMessage, TakesTheLaterOfTwoLabelsAndAddresses)
{
    const auto event =
        Received(AddressMessage().local("10.0.0.1").label("one").local("10.0.0.2").label("two").bytes())
            .read();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->interface, "two");
    EXPECT_EQ(event->address, "10.0.0.2");
}

TEST(NetlinkAddressMessage, PassesOverAttributesOfUnknownTypes)
{
    const auto event = Received(AddressMessage()
                                    .add(47, "data")
                                    .add(0xffff, "data")
                                    .local("10.0.0.1")
                                    .add(46, "data")
                                    .label("wlan0")
                                    .bytes())
                           .read();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->interface, "wlan0");
}

TEST(NetlinkAddressMessage, EndsItsWalkAtAnAttributeShorterThanItsHeader)
{
    std::string message = AddressMessage().bytes();
    message += attribute(IFA_CACHEINFO, "data");
    const size_t length = message.size() - 8;
    message[length] = 3;
    message +=
        attribute(IFA_LOCAL, std::string(kLocalAddress)) + attribute(IFA_LABEL, std::string("wlan0\0", 6));
    EXPECT_FALSE(Received(AddressMessage::with_length(message)).read());
}

TEST(NetlinkAddressMessage, SeesWhatLiesBehindTheMessageForAsFarAsItsWalksReach)
{
    // The walks count from the message's full length, 32 and 24 bytes too far: the label here lies behind the
    // end.
    const std::string message = AddressMessage().local("10.0.0.1").bytes();
    const auto event = Received(message + attribute(IFA_LABEL, std::string("wlan0\0", 6))).read();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->interface, "wlan0");
}

TEST(NetlinkAddressMessage, EndsItsWalkAtAnAttributeLongerThanWhatIsLeft)
{
    std::string message = AddressMessage().local("10.0.0.1").bytes();
    const std::string label = attribute(IFA_LABEL, std::string(40, 'w'));
    EXPECT_FALSE(Received(message + label).read());
}

/** A message as long as the longest datagram, whose last attribute is the given one. */
std::string longest_message_with(const std::string& first, const std::string& last)
{
    AddressMessage message;
    message.raw(first);
    size_t room = kNetlinkReceiveSize - message.bytes().size() - last.size();
    while (room > 0) {
        const size_t size = std::min<size_t>(room, 1024);
        message.add(IFA_CACHEINFO, std::string(size - sizeof(rtattr), 'x'));
        room -= size;
    }
    return message.raw(last).bytes();
}

TEST(NetlinkAddressMessage, ReadsALabelWithoutNulAtTheEndOfTheBuffer)
{
    const std::string local = attribute(IFA_LOCAL, std::string(kLocalAddress));
    for (const unsigned short claimed : {8, 12, 36, 40}) {
        std::string label = attribute(IFA_LABEL, "wlan");
        std::memcpy(label.data(), &claimed, sizeof(claimed));
        const std::string message = longest_message_with(local, label);
        ASSERT_EQ(message.size(), kNetlinkReceiveSize);
        const auto event = Received(message).read();
        ASSERT_TRUE(event) << claimed;
        EXPECT_EQ(event->interface, "wlan");
    }
}

TEST(NetlinkAddressMessage, ReadsAnEmptyLabelAndAnAddressThatBeginWhereTheDatagramEnds)
{
    const std::string local = attribute(IFA_LOCAL, "");
    const auto noAddress =
        Received(longest_message_with(attribute(IFA_LABEL, std::string("wlan0\0", 6)), local)).read();
    ASSERT_TRUE(noAddress);
    EXPECT_EQ(noAddress->address, "0.0.0.0");

    const auto noName = Received(longest_message_with(attribute(IFA_LOCAL, std::string(kLocalAddress)),
                                                      attribute(IFA_LABEL, "")))
                            .read();
    ASSERT_TRUE(noName);
    EXPECT_EQ(noName->interface, "");
}

TEST(NetlinkAddressMessage, ReadsAnAddressAttributeOfAnyLengthAtTheEndOfTheBuffer)
{
    const std::string label = attribute(IFA_LABEL, std::string("wlan0\0", 6));
    for (const unsigned short claimed : {4, 5, 6, 7, 8, 28, 32}) {
        std::string local = attribute(IFA_LOCAL, std::string(kLocalAddress));
        std::memcpy(local.data(), &claimed, sizeof(claimed));
        const auto event = Received(longest_message_with(label, local)).read();
        ASSERT_TRUE(event) << claimed;
        EXPECT_EQ(event->address, "192.168.8.1");
    }
}

// The table alone

struct Table
{
    std::array<const rtattr*, 9> entries;

    Table() { entries.fill(reinterpret_cast<const rtattr*>(this)); }
    void fill(const std::string& bytes, size_t count)
    {
        netlink_fill_attribute_table(entries.data(), 8, reinterpret_cast<const rtattr*>(bytes.data()), count);
    }
    size_t filled() const
    {
        return entries.size() - static_cast<size_t>(std::count(entries.begin(), entries.end(), nullptr));
    }
};

TEST(NetlinkAttributeTable, IsClearedWhenThereIsNothingToWalk)
{
    for (const size_t count : {0U, 1U, 3U}) {
        Table table;
        table.fill(attribute(1, "data"), count);
        EXPECT_EQ(table.filled(), 0U);
    }
}

TEST(NetlinkAttributeTable, HoldsAnAttributeThatFitsExactlyAndNoneThatDoesNot)
{
    const std::string bytes = attribute(8, "data");
    Table table;
    table.fill(bytes, 8);
    EXPECT_EQ(table.entries[8], reinterpret_cast<const rtattr*>(bytes.data()));
    EXPECT_EQ(table.filled(), 1U);
    table.fill(bytes, 7);
    EXPECT_EQ(table.filled(), 0U);
}

TEST(NetlinkAttributeTable, StepsByLengthsRoundedUpToFour)
{
    const std::string bytes = attribute(1, "x") + attribute(2, "yy") + attribute(3, "zzz") + attribute(0, "");
    Table table;
    table.fill(bytes, bytes.size());
    EXPECT_EQ(table.entries[2], reinterpret_cast<const rtattr*>(bytes.data() + 8));
    EXPECT_EQ(table.entries[3], reinterpret_cast<const rtattr*>(bytes.data() + 16));
    EXPECT_EQ(table.entries[0], reinterpret_cast<const rtattr*>(bytes.data() + 24));
    EXPECT_EQ(table.filled(), 4U);
}

TEST(NetlinkAttributeTable, EndsWhereWhatIsCountedEnds)
{
    // Behind a step of eight bytes nothing is left of five, and no whole attribute of twelve.
    const std::string bytes = attribute(1, "x") + attribute(2, "data");
    for (const size_t count : {5U, 12U}) {
        Table table;
        table.fill(bytes, count);
        EXPECT_EQ(table.filled(), 1U) << count;
    }
}

TEST(NetlinkAttributeTable, ReadsNothingBehindARoundedStepThatLeavesNothing)
{
    const auto bytes = std::make_unique<char[]>(8);
    std::memcpy(bytes.get(), attribute(1, "x").data(), 8);
    Table table;
    netlink_fill_attribute_table(table.entries.data(), 8, reinterpret_cast<const rtattr*>(bytes.get()), 5);
    EXPECT_EQ(table.filled(), 1U);
}

} // namespace
