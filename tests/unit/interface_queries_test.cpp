#include "utils/interface_queries.hpp"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <list>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netpacket/packet.h>
#include <syslog.h>
#include <time.h>

#include "support/captured_log.hpp"
#include "support/temp_folder.hpp"

// The interface list is the test's: links without a hardware address of six bytes are not to be had
// everywhere.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::captured_log;
using testing_support::LogLine;

/** The interface list that getifaddrs gives. */
class Interfaces
{
public:
    bool unavailable = false;
    int lists = 0;

    void add_link(const std::string& name, unsigned char length)
    {
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_halen = length;
        for (size_t i = 0; i < sizeof(address.sll_addr); ++i) {
            address.sll_addr[i] = static_cast<unsigned char>(0xa0 + i);
        }
        add(name, &address, sizeof(address));
    }
    void add_ipv4(const std::string& name, const char* text)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        inet_pton(AF_INET, text, &address.sin_addr);
        add(name, &address, sizeof(address));
    }
    void add_ipv6(const std::string& name)
    {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        add(name, &address, sizeof(address));
    }
    void add_without_address(const std::string& name) { add(name, nullptr, 0); }

    ifaddrs* first() { return entries_.empty() ? nullptr : &entries_.front().entry; }

private:
    struct Entry
    {
        std::string name;
        std::unique_ptr<char[]> address; // of its exact size, so that a sanitizer sees a read beyond it
        ifaddrs entry{};
    };

    void add(const std::string& name, const void* address, size_t size)
    {
        Entry& added = entries_.emplace_back();
        added.name = name;
        added.entry.ifa_name = added.name.data();
        if (address != nullptr) {
            added.address = std::make_unique<char[]>(size);
            std::memcpy(added.address.get(), address, size);
            added.entry.ifa_addr = reinterpret_cast<sockaddr*>(added.address.get());
        }
        if (entries_.size() > 1) {
            std::prev(entries_.end(), 2)->entry.ifa_next = &added.entry;
        }
    }

    std::list<Entry> entries_;
};

std::unique_ptr<Interfaces> interfaces;

std::vector<timespec> sleeps;

} // namespace

extern "C" {

int getifaddrs(ifaddrs** list) noexcept
{
    if (interfaces->unavailable) {
        errno = ENOMEM;
        return -1;
    }
    ++interfaces->lists;
    *list = interfaces->first();
    return 0;
}

void freeifaddrs(ifaddrs* list) noexcept
{
    EXPECT_EQ(list, interfaces->first());
    --interfaces->lists;
}

/** Takes no time. */
int nanosleep(const timespec* time, timespec*)
{
    sleeps.push_back(*time);
    return 0;
}
}

namespace {

class InterfaceQueries : public testing::Test
{
protected:
    InterfaceQueries()
    {
        interfaces = std::make_unique<Interfaces>();
        sleeps.clear();
        captured_log().clear();
    }
    ~InterfaceQueries() override { EXPECT_EQ(interfaces->lists, 0) << "an interface list was not freed"; }

    /** The MAC address of wlan0, or "none". */
    static std::string mac()
    {
        std::array<char, kMacAddressBufferSize> buffer{};
        buffer.fill('#');
        return utils_get_mac_address("wlan0", buffer.data()) != 0 ? buffer.data() : "none";
    }

    /** The IPv4 address of wlan0, or "none". */
    static std::string ip()
    {
        std::array<char, kIpAddressBufferSize> buffer{};
        buffer.fill('#');
        return utils_get_ip_address("wlan0", buffer.data()) != 0 ? buffer.data() : "none";
    }

    static std::vector<LogLine> log() { return captured_log().lines(); }
};

const LogLine kNoMac = {LOG_ERR, "utils_get_mac_address: Failed to get MAC address for interface wlan0"};

TEST_F(InterfaceQueries, FormatsAHardwareAddressOfSixBytes)
{
    interfaces->add_link("lo", 4);
    interfaces->add_without_address("wlan0");
    interfaces->add_ipv4("wlan0", "10.0.0.1");
    interfaces->add_link("wlan0", 6);
    EXPECT_EQ(mac(), "a0:a1:a2:a3:a4:a5");
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(InterfaceQueries, HasNoHardwareAddressOfAnyOtherLengthAndSaysSo)
{
    for (const unsigned char length : {0, 1, 4, 5, 7, 8, 16, 20, 255}) {
        interfaces = std::make_unique<Interfaces>();
        captured_log().clear();
        interfaces->add_link("wlan0", length);
        EXPECT_EQ(mac(), "none") << int{length};
        EXPECT_THAT(log(), ElementsAre(kNoMac)) << int{length};
        EXPECT_EQ(interfaces->lists, 0);
    }
}

TEST_F(InterfaceQueries, LooksAtTheFirstHardwareAddressOnly)
{
    interfaces->add_link("wlan0", 4);
    interfaces->add_link("wlan0", 6);
    EXPECT_EQ(mac(), "none");
    EXPECT_THAT(log(), ElementsAre(kNoMac));
}

TEST_F(InterfaceQueries, SaysNothingOfAnInterfaceWithoutHardwareAddressOrThatIsNotThere)
{
    interfaces->add_without_address("wlan0");
    interfaces->add_ipv4("wlan0", "10.0.0.1");
    interfaces->add_link("wlan00", 6);
    interfaces->add_link("wlan", 6);
    EXPECT_EQ(mac(), "none");
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(InterfaceQueries, SaysNothingWhenThereIsNoListForTheHardwareAddress)
{
    interfaces->unavailable = true;
    EXPECT_EQ(mac(), "none");
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(InterfaceQueries, FormatsTheFirstIpv4AddressOfTheInterface)
{
    interfaces->add_ipv4("eth0", "10.0.0.1");
    interfaces->add_without_address("wlan0");
    interfaces->add_link("wlan0", 6);
    interfaces->add_ipv6("wlan0");
    interfaces->add_ipv4("wlan0", "255.255.255.255");
    interfaces->add_ipv4("wlan0", "10.0.0.3");
    EXPECT_EQ(ip(), "255.255.255.255");
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_INFO, "utils_get_ip_address: addr_found: 1"}));
}

TEST_F(InterfaceQueries, SaysThatThereIsNoIpv4Address)
{
    interfaces->add_ipv4("eth0", "10.0.0.1");
    interfaces->add_ipv6("wlan0");
    EXPECT_EQ(ip(), "none");
    interfaces = std::make_unique<Interfaces>();
    interfaces->unavailable = true;
    EXPECT_EQ(ip(), "none");
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_INFO, "utils_get_ip_address: addr_found: 0"},
                                   LogLine{LOG_INFO, "utils_get_ip_address: addr_found: 0"}));
}

TEST_F(InterfaceQueries, WithoutTransmitPowerWaitsHalfASecondAndFails)
{
    const testing_support::TempFolder folder;
    const std::string path = std::getenv("PATH");
    setenv("PATH", (folder.path().string() + ":" + path).c_str(), 1);
    for (const auto& [printed, found, read] : {std::tuple("txpower 20.00 dBm", true, "txpower 20.00 dB"),
                                               {"txpower: none", true, ""},
                                               {"type AP", false, ""}}) {
        folder.write("iw", std::string("#!/bin/sh\necho ") + printed + "\n");
        std::filesystem::permissions(folder.file("iw"), std::filesystem::perms::owner_all);
        std::array<char, 256> power{};
        EXPECT_EQ(utils_get_signal_strength(power.data()), found);
        EXPECT_STREQ(power.data(), read);
        EXPECT_EQ(sleeps.size(), found ? 0U : 1U);
    }
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(sleeps.at(0).tv_sec, 0);
    EXPECT_EQ(sleeps.at(0).tv_nsec, 500'000'000);
}

TEST_F(InterfaceQueries, LooksForAnNfsRootInTheFirst499BytesOfTheCommandLine)
{
    const auto namesNfsRoot = [](const std::string& text) {
        std::istringstream commandLine(text);
        return utils_names_nfs_root(commandLine);
    };
    const std::string root = "root=/dev/nfs";
    const std::string before(499 - root.size(), 'x');

    EXPECT_TRUE(namesNfsRoot("console=tty0 root=/dev/nfs nfsroot=10.0.0.1:/srv rw\n"));
    EXPECT_FALSE(namesNfsRoot("root=/dev/mmcblk0p2 rw\n"));
    EXPECT_FALSE(namesNfsRoot("rw\nroot=/dev/nfs\n"));
    EXPECT_FALSE(namesNfsRoot(""));
    EXPECT_TRUE(namesNfsRoot(before + root));
    EXPECT_FALSE(namesNfsRoot(before + 'x' + root));
}

} // namespace
