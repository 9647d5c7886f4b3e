#include "listeners/kernel_netlink_listener.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include "support/captured_log.hpp"
#include "support/netlink_messages.hpp"

// The kernel is replaced: its socket delivers what the test says.

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::AddressMessage;
using testing_support::captured_log;
using testing_support::LogLine;

/** One answer of recvmsg: a datagram, or an error. */
struct Reception
{
    std::string datagram = {};
    int error = 0;
    socklen_t nameLength = sizeof(sockaddr_nl);
};

/** What the kernel was asked, and what it answers. Used by the listener's thread and the test's. */
class Kernel
{
public:
    int socketError = 0;
    int bindError = 0;
    std::chrono::milliseconds bindTakes{0};
    std::tuple<int, int, int> socketArguments;
    int descriptor = -1;
    sockaddr_nl boundAddress{};
    socklen_t boundLength = 0;

    void deliver(Reception reception, size_t times = 1)
    {
        const std::lock_guard lock(mutex_);
        waiting_.insert(waiting_.end(), times, reception);
    }

    ssize_t receive(int descriptorAsked, msghdr* header, int flags)
    {
        const std::lock_guard lock(mutex_);
        received_.push_back(steady_clock::now());
        changed_.notify_all();
        EXPECT_EQ(descriptorAsked, descriptor);
        EXPECT_EQ(flags, MSG_DONTWAIT);
        EXPECT_EQ(header->msg_iovlen, 1U);
        EXPECT_EQ(header->msg_iov->iov_len, 8192U);
        EXPECT_EQ(header->msg_control, nullptr);
        EXPECT_NE(header->msg_name, nullptr);
        EXPECT_TRUE(received_.size() > 1 || header->msg_namelen == sizeof(sockaddr_nl));
        if (waiting_.empty()) {
            errno = EAGAIN;
            return -1;
        }
        const Reception next = waiting_.front();
        waiting_.pop_front();
        header->msg_namelen = next.nameLength;
        if (next.error != 0) {
            errno = next.error;
            return -1;
        }
        const size_t size = std::min(next.datagram.size(), header->msg_iov->iov_len);
        std::memcpy(header->msg_iov->iov_base, next.datagram.data(), size);
        return static_cast<ssize_t>(size);
    }

    /** Waits until recvmsg has been called so many times in all; returns the times of the calls. */
    std::vector<steady_clock::time_point> wait_for_receptions(size_t count)
    {
        std::unique_lock lock(mutex_);
        EXPECT_TRUE(changed_.wait_for(lock, 20s, [&] { return received_.size() >= count; }));
        return received_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Reception> waiting_;
    std::vector<steady_clock::time_point> received_;
};

std::unique_ptr<Kernel> kernel;

} // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept
{
    kernel->socketArguments = {domain, type, protocol};
    if (kernel->socketError != 0) {
        errno = kernel->socketError;
        return -1;
    }
    kernel->descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    return kernel->descriptor;
}

int bind(int, const sockaddr* address, socklen_t length) noexcept
{
    std::this_thread::sleep_for(kernel->bindTakes);
    std::memcpy(&kernel->boundAddress, address, std::min<size_t>(length, sizeof(sockaddr_nl)));
    kernel->boundLength = length;
    errno = kernel->bindError;
    return kernel->bindError == 0 ? 0 : -1;
}

ssize_t recvmsg(int descriptor, msghdr* header, int flags)
{
    return kernel->receive(descriptor, header, flags);
}
}

namespace {

const LogLine kStarting = {LOG_INFO, "[NETLINK] Starting kernel netlink listener..."};
const LogLine kTask = {LOG_INFO, "[NETLINK] Starting kernel netlink task..."};
const LogLine kExiting = {LOG_ERR, "[NETLINK] OpenSocket() failed, exiting."};
const LogLine kAdded = {LOG_INFO, "[NETLINK] IP Event: Iface: wlan0 IP Address: 192.168.8.1 Status: Added"};
const LogLine kRemoved = {LOG_INFO,
                          "[NETLINK] IP Event: Iface: wlan0 IP Address: 192.168.8.1 Status: Removed"};

using Event = std::tuple<std::string, std::string, bool>;

std::string address_message(uint16_t type = RTM_NEWADDR)
{
    return AddressMessage(type).local("192.168.8.1").label("wlan0").bytes();
}

class KernelListener : public testing::Test
{
protected:
    KernelListener()
    {
        kernel = std::make_unique<Kernel>();
        captured_log().clear();
        listener.AddressEventSignal.connect(
            [this](const std::string& interface, const std::string& address, bool added) {
                events.emplace_back(interface, address, added);
            });
    }
    ~KernelListener() override { listener.Stop(); }

    static std::vector<LogLine> log() { return captured_log().lines(); }
    static bool is_open(int descriptor) { return fcntl(descriptor, F_GETFD) >= 0; }

    KernelNetlinkListener listener;
    std::vector<Event> events; // of the listener's thread until it has been stopped
};

TEST_F(KernelListener, OpensARouteSocketForLinksAndIpv4AddressesUnderItsProcessId)
{
    listener.Start();
    kernel->wait_for_receptions(1);
    EXPECT_EQ(kernel->socketArguments, std::make_tuple(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    EXPECT_EQ(kernel->boundLength, 12U);
    EXPECT_EQ(kernel->boundAddress.nl_family, AF_NETLINK);
    EXPECT_EQ(kernel->boundAddress.nl_pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(kernel->boundAddress.nl_groups, 0x11U);
    listener.Stop();
    EXPECT_THAT(log(), ElementsAre(kStarting, kTask));
    EXPECT_FALSE(is_open(kernel->descriptor));
}

// Until then whoever started it must not open netlink sockets, which may be given the listener's port id.
TEST_F(KernelListener, HasItsPortWhenStartReturns)
{
    kernel->bindTakes = 100ms;
    listener.Start();
    EXPECT_EQ(kernel->boundLength, 12U);
}

TEST_F(KernelListener, StartReturnsWhenThereIsNoPortToBeHad)
{
    kernel->bindTakes = 100ms;
    kernel->bindError = EADDRINUSE;
    listener.Start();
    EXPECT_THAT(log(), testing::Contains(kStarting));
    EXPECT_EQ(kernel->boundLength, 12U);
    ASSERT_TRUE(captured_log().wait_for_lines(4));
}

TEST_F(KernelListener, EndsWithTwoLinesWhenThereIsNoSocket)
{
    kernel->socketError = EMFILE;
    listener.Start();
    ASSERT_TRUE(captured_log().wait_for_lines(4));
    EXPECT_THAT(
        log(),
        ElementsAre(kStarting, kTask,
                    LogLine{LOG_ERR, "[NETLINK] Failed to create netlink socket: Too many open files\n"},
                    kExiting));
    listener.Stop();
}

TEST_F(KernelListener, ClosesItsSocketAndEndsWithTwoLinesWhenItCanNotBind)
{
    kernel->bindError = EADDRINUSE;
    listener.Start();
    ASSERT_TRUE(captured_log().wait_for_lines(4));
    EXPECT_THAT(
        log(),
        ElementsAre(kStarting, kTask,
                    LogLine{LOG_ERR, "[NETLINK] Failed to bind netlink socket: Address already in use\n"},
                    kExiting));
    listener.Stop();
    EXPECT_FALSE(is_open(kernel->descriptor));
}

TEST_F(KernelListener, TellsOfAddressesAddedAndRemovedAtMostOnceASecond)
{
    kernel->deliver({.datagram = ""});
    kernel->deliver({.datagram = address_message()});
    kernel->deliver({.datagram = address_message(RTM_DELADDR)});
    listener.Start();
    const auto times = kernel->wait_for_receptions(3);
    ASSERT_TRUE(captured_log().wait_for_lines(4));
    listener.Stop();
    EXPECT_THAT(log(), ElementsAre(kStarting, kTask, kAdded, kRemoved));
    EXPECT_THAT(events,
                ElementsAre(Event("wlan0", "192.168.8.1", true), Event("wlan0", "192.168.8.1", false)));
    EXPECT_GE(times[1] - times[0], 1s);
    EXPECT_GE(times[2] - times[1], 1s);
}

TEST_F(KernelListener, LooksAgainEveryTwoSecondsWhenThereIsNothing)
{
    kernel->deliver({.error = EINTR});
    listener.Start();
    const auto times = kernel->wait_for_receptions(3);
    listener.Stop();
    EXPECT_GE(times[1] - times[0], 2s);
    EXPECT_GE(times[2] - times[1], 2s);
    EXPECT_THAT(log(), ElementsAre(kStarting, kTask));
}

TEST_F(KernelListener, LooksAgainAtOnceAfterAnyOtherError)
{
    kernel->deliver({.error = ENOBUFS}, 500);
    kernel->deliver({.error = ENOMEM}, 500);
    kernel->deliver({.datagram = address_message()});
    listener.Start();
    ASSERT_TRUE(captured_log().wait_for_lines(3));
    listener.Stop();
    EXPECT_THAT(log(), ElementsAre(kStarting, kTask, kAdded));
}

TEST_F(KernelListener, PassesOverADatagramFromANameOfAnotherLength)
{
    kernel->deliver({.datagram = address_message(RTM_DELADDR), .nameLength = 8}, 500);
    kernel->deliver({.datagram = address_message()});
    listener.Start();
    ASSERT_TRUE(captured_log().wait_for_lines(3));
    listener.Stop();
    EXPECT_THAT(log(), ElementsAre(kStarting, kTask, kAdded));
}

TEST_F(KernelListener, StopEndsItsWaitsAtOnceAndStartBeginsAnew)
{
    // In the two seconds of having nothing, then in the second after a datagram.
    for (const size_t datagrams : {0U, 1U}) {
        captured_log().clear();
        kernel = std::make_unique<Kernel>();
        kernel->deliver({.datagram = std::string(15, '\1')}, datagrams);
        listener.Start();
        kernel->wait_for_receptions(1);
        const auto asked = steady_clock::now();
        listener.Stop();
        EXPECT_LT(steady_clock::now() - asked, 900ms);
        EXPECT_FALSE(is_open(kernel->descriptor));
        EXPECT_THAT(log(), ElementsAre(kStarting, kTask));
    }
    listener.Stop();
}

TEST_F(KernelListener, GoesOnReportingAnInvalidMessageUntilItIsStopped)
{
    kernel->deliver({.datagram = AddressMessage::with_length(address_message(), 15)});
    listener.Start();
    ASSERT_TRUE(captured_log().wait_for_lines(1000));
    listener.Stop();
    std::vector<LogLine> lines = log();
    lines.erase(lines.begin(), lines.begin() + 2);
    EXPECT_THAT(lines, Each(LogLine{LOG_ERR, "[NETLINK] Invalid message length: 15"}));
    EXPECT_THAT(events, IsEmpty());
    EXPECT_FALSE(is_open(kernel->descriptor));
}

TEST_F(KernelListener, ReportsTheFirstOfTwoMessagesTwiceAndNeverTheSecond)
{
    kernel->deliver({.datagram = address_message() + address_message(RTM_DELADDR)});
    listener.Start();
    kernel->wait_for_receptions(2);
    listener.Stop();
    EXPECT_THAT(log(), ElementsAre(kStarting, kTask, kAdded, kAdded));
}

TEST_F(KernelListener, TakesNothingFromAnEarlierLongerDatagram)
{
    // The label of the first lies where the walk over the second would find it.
    kernel->deliver({.datagram = address_message()});
    kernel->deliver({.datagram = AddressMessage().local("10.0.0.1").bytes()});
    listener.Start();
    kernel->wait_for_receptions(3);
    listener.Stop();
    EXPECT_THAT(log(), ElementsAre(kStarting, kTask, kAdded));
}

TEST_F(KernelListener, TakesADatagramThatFillsTheBuffer)
{
    std::string datagram = address_message();
    datagram.resize(8192, '\xff');
    kernel->deliver({.datagram = AddressMessage::with_length(datagram)});
    listener.Start();
    kernel->wait_for_receptions(2);
    listener.Stop();
    EXPECT_THAT(log(), ElementsAre(kStarting, kTask, kAdded));
}

TEST_F(KernelListener, ReportsAMessageThatLeavesAnUnusableRestThenTheRestUntilItIsStopped)
{
    std::string datagram = address_message();
    const auto length = static_cast<uint32_t>(datagram.size());
    datagram.resize(2 * length + 16);
    kernel->deliver({.datagram = AddressMessage::with_length(datagram, length)});
    listener.Start();
    ASSERT_TRUE(captured_log().wait_for_lines(100));
    listener.Stop();
    std::vector<LogLine> lines = log();
    EXPECT_EQ(lines[2], kAdded);
    EXPECT_EQ(lines[3], kAdded);
    lines.erase(lines.begin(), lines.begin() + 4);
    EXPECT_THAT(lines, Each(LogLine{LOG_ERR, "[NETLINK] Invalid message length: " + std::to_string(length)}));
}

// Checking one message

struct Length
{
    uint32_t claimed;
    ssize_t remaining;
    const char* logged;
};

class InvalidLength : public KernelListener, public testing::WithParamInterface<Length>
{
};

TEST_P(InvalidLength, IsLoggedAndLeavesWhatRemains)
{
    alignas(nlmsghdr) NetlinkBuffer buffer{};
    const std::string message = AddressMessage::with_length(address_message(), GetParam().claimed);
    std::copy(message.begin(), message.end(), buffer.begin());
    ssize_t remaining = GetParam().remaining;
    EXPECT_EQ(listener.check_message(reinterpret_cast<const nlmsghdr*>(buffer.data()), remaining), 0);
    EXPECT_EQ(remaining, GetParam().remaining);
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, GetParam().logged}));
    EXPECT_THAT(events, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(All, InvalidLength,
                         testing::Values(Length{0, 56, "[NETLINK] Invalid message length: 0"},
                                         Length{15, 56, "[NETLINK] Invalid message length: 15"},
                                         Length{57, 56, "[NETLINK] Invalid message length: 57"},
                                         Length{17, 16, "[NETLINK] Invalid message length: 17"},
                                         Length{0x7fffffff, 56,
                                                "[NETLINK] Invalid message length: 2147483647"},
                                         Length{0xffffffff, 56, "[NETLINK] Invalid message length: -1"}),
                         [](const auto& tested) { return "Of" + std::to_string(tested.param.claimed); });

TEST_F(KernelListener, CountsDownByTheLengthRoundedUpToFour)
{
    alignas(nlmsghdr) NetlinkBuffer buffer{};
    auto* message = reinterpret_cast<nlmsghdr*>(buffer.data());
    message->nlmsg_type = RTM_NEWLINK;
    for (const auto& [length, remaining, left] :
         {std::tuple{16U, 16, 0}, {17U, 17, -3}, {18U, 60, 40}, {20U, 60, 40}}) {
        message->nlmsg_len = length;
        ssize_t counted = remaining;
        EXPECT_EQ(listener.check_message(message, counted), 1);
        EXPECT_EQ(counted, left);
    }
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(KernelListener, PassesOverMessagesOfOtherTypesAndIncompleteOnesWithoutALine)
{
    for (const std::string& message :
         {address_message(RTM_NEWLINK), address_message(RTM_DELLINK), address_message(RTM_GETADDR),
          address_message(19), AddressMessage().label("wlan0").bytes(),
          AddressMessage().local("10.0.0.1").bytes()}) {
        alignas(nlmsghdr) NetlinkBuffer buffer{};
        std::copy(message.begin(), message.end(), buffer.begin());
        auto remaining = static_cast<ssize_t>(message.size());
        EXPECT_EQ(listener.check_message(reinterpret_cast<const nlmsghdr*>(buffer.data()), remaining), 1);
        EXPECT_EQ(remaining, 0);
    }
    EXPECT_THAT(log(), IsEmpty());
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(KernelListener, IsOneForTheWholeProcess)
{
    EXPECT_NE(kernel_address_listener(), nullptr);
    EXPECT_EQ(kernel_address_listener(), kernel_address_listener());
}

} // namespace
