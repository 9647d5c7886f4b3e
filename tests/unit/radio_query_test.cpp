#include "radio_bands.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/nl80211.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/interrupting_signals.hpp"
#include "support/temp_folder.hpp"
#include "support/unique_fd.hpp"

// What the kernel is asked about its radios, and what is made of its answers, the kernel being played over a
// pair of sockets.

namespace {

using KorrinInfo::detail::kernel_offers_5ghz;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint16_t kFamily = 29; // of nl80211: any number will do

/** Why the next datagrams cannot be had at once. */
std::vector<int> refusals;

} // namespace

// Under another name: where the C library checks sizes, its header defines this function itself.
extern "C" ssize_t refused_recvfrom(int fd, void* data, std::size_t size, int flags, sockaddr* from,
                                    socklen_t* fromSize) __asm__("recvfrom");

extern "C" ssize_t refused_recvfrom(int fd, void* data, std::size_t size, int flags, sockaddr* from,
                                    socklen_t* fromSize)
{
    if (!refusals.empty()) {
        errno = refusals.back();
        refusals.pop_back();
        return -1;
    }
    return ::syscall(SYS_recvfrom, fd, data, size, flags, from, fromSize);
}

namespace {

template <typename T>
std::string bytes_of(const T& value)
{
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string attribute(std::uint16_t type, const std::string& payload)
{
    const nlattr header = {static_cast<std::uint16_t>(sizeof(nlattr) + payload.size()), type};
    std::string text = bytes_of(header) + payload;
    text.resize(NLA_ALIGN(text.size()));
    return text;
}

/** A message of the kernel; with a family's number as its type, a generic header stands before the
 * attributes. */
std::string message(std::uint16_t type, const std::string& contents)
{
    const std::string generic = type >= NLMSG_MIN_TYPE ? bytes_of(genlmsghdr{}) : std::string();
    nlmsghdr header = {};
    header.nlmsg_type = type;
    header.nlmsg_len = static_cast<std::uint32_t>(sizeof header + generic.size() + contents.size());
    return bytes_of(header) + generic + contents;
}

std::string family_is(std::uint16_t number)
{
    return message(GENL_ID_CTRL, attribute(CTRL_ATTR_FAMILY_NAME, std::string("nl80211", 8)) +
                                     attribute(CTRL_ATTR_FAMILY_ID, bytes_of(number)));
}

std::string done()
{
    return message(NLMSG_DONE, bytes_of(int{0}));
}

std::string error(int number)
{
    nlmsgerr contents = {};
    contents.error = number;
    return message(NLMSG_ERROR, bytes_of(contents));
}

std::string bands(const std::vector<std::uint16_t>& numbers)
{
    std::string list;
    for (const std::uint16_t number : numbers) {
        list += attribute(number, attribute(NL80211_BAND_ATTR_FREQS, ""));
    }
    return attribute(NL80211_ATTR_WIPHY_BANDS, list);
}

std::string radio_with(const std::vector<std::uint16_t>& numbers)
{
    return message(kFamily, attribute(NL80211_ATTR_WIPHY_NAME, "phy0") + bands(numbers));
}

const std::string kFamilyFound = family_is(kFamily) + error(0); // an error of 0 is the acknowledgement

/** A kernel that answers each request with the datagrams that the test has for it, and remembers the
 * requests. */
class PlayedKernel
{
public:
    explicit PlayedKernel(std::vector<std::vector<std::string>> answers) : answers_(std::move(answers))
    {
        std::array<int, 2> ends = {};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()), 0);
        asking_ = UniqueFd(ends[0]);
        answering_ = UniqueFd(ends[1]);
        thread_ = std::thread([this] { answer_all(); });
    }
    PlayedKernel(const PlayedKernel&) = delete;
    PlayedKernel& operator=(const PlayedKernel&) = delete;
    ~PlayedKernel() { end(); }

    bool asked(std::uint32_t interface = 0)
    {
        const bool answer = kernel_offers_5ghz(asking_.get(), interface, std::chrono::seconds(20));
        end();
        return answer;
    }

    /** The requests, once it has been asked. */
    const std::vector<std::string>& requests() const { return requests_; }

private:
    void end()
    {
        asking_.reset();
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    void answer_all()
    {
        std::size_t number = 0;
        for (;;) {
            pollfd waiting = {answering_.get(), POLLIN, 0};
            ::poll(&waiting, 1, -1);
            std::array<char, 4096> buffer = {};
            const ssize_t size = ::recv(answering_.get(), buffer.data(), buffer.size(), 0);
            if (size <= 0) {
                return; // the one who asks has gone
            }
            requests_.emplace_back(buffer.data(), static_cast<std::size_t>(size));
            for (const std::string& datagram :
                 number < answers_.size() ? answers_[number] : std::vector<std::string>()) {
                ::send(answering_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL);
            }
            ++number;
        }
    }

    std::vector<std::vector<std::string>> answers_;
    std::vector<std::string> requests_;
    UniqueFd asking_;
    UniqueFd answering_;
    std::thread thread_;
};

/** What stands in a request: the headers, and the attributes behind them. */
struct Parsed
{
    nlmsghdr header = {};
    genlmsghdr generic = {};
    std::string attributes;

    explicit Parsed(const std::string& request)
    {
        EXPECT_GE(request.size(), sizeof header + sizeof generic);
        std::memcpy(&header, request.data(), sizeof header);
        std::memcpy(&generic, request.data() + sizeof header, sizeof generic);
        EXPECT_EQ(header.nlmsg_len, request.size());
        EXPECT_EQ(header.nlmsg_seq, 1U);
        EXPECT_EQ(generic.version, 1U);
        attributes = request.substr(sizeof header + sizeof generic);
    }
};

TEST(RadioQuery, AsksForTheFamilyAndThenForTheRadioBehindTheInterface)
{
    PlayedKernel kernel({{kFamilyFound}, {radio_with({NL80211_BAND_2GHZ, NL80211_BAND_5GHZ}), done()}});
    EXPECT_TRUE(kernel.asked(7));
    ASSERT_EQ(kernel.requests().size(), 2U);

    const Parsed family(kernel.requests()[0]);
    EXPECT_EQ(family.header.nlmsg_type, GENL_ID_CTRL);
    EXPECT_EQ(family.header.nlmsg_flags, NLM_F_REQUEST | NLM_F_ACK);
    EXPECT_EQ(family.generic.cmd, CTRL_CMD_GETFAMILY);
    EXPECT_EQ(family.attributes, attribute(CTRL_ATTR_FAMILY_NAME, std::string("nl80211", 8)));

    const Parsed radio(kernel.requests()[1]);
    EXPECT_EQ(radio.header.nlmsg_type, kFamily);
    EXPECT_EQ(radio.header.nlmsg_flags, NLM_F_REQUEST | NLM_F_DUMP);
    EXPECT_EQ(radio.generic.cmd, NL80211_CMD_GET_WIPHY);
    EXPECT_EQ(radio.attributes, attribute(NL80211_ATTR_SPLIT_WIPHY_DUMP, "") +
                                    attribute(NL80211_ATTR_IFINDEX, bytes_of(std::uint32_t{7})));
}

TEST(RadioQuery, AsksForAllRadiosWhileThereIsNoInterface)
{
    PlayedKernel kernel({{kFamilyFound}, {radio_with({NL80211_BAND_5GHZ}), done()}});
    EXPECT_TRUE(kernel.asked(0));
    ASSERT_EQ(kernel.requests().size(), 2U);
    EXPECT_EQ(Parsed(kernel.requests()[1]).attributes, attribute(NL80211_ATTR_SPLIT_WIPHY_DUMP, ""));
}

TEST(RadioQuery, FindsNoBandOnARadioThatHasNone)
{
    EXPECT_FALSE(PlayedKernel({{kFamilyFound}, {radio_with({NL80211_BAND_2GHZ}), done()}}).asked());
    EXPECT_FALSE(PlayedKernel({{kFamilyFound}, {done()}}).asked()) << "no radio at all";
    EXPECT_FALSE(PlayedKernel({{kFamilyFound}, {error(-ENODEV)}}).asked());
}

TEST(RadioQuery, FindsTheBandInWhicheverPartOfTheAnswerItStands)
{
    const std::string with = radio_with({NL80211_BAND_5GHZ});
    const std::string without = radio_with({NL80211_BAND_2GHZ});
    EXPECT_TRUE(PlayedKernel({{kFamilyFound}, {without, with, done()}}).asked()) << "in another datagram";
    EXPECT_TRUE(PlayedKernel({{kFamilyFound}, {with, without, done()}}).asked()) << "not forgotten";
    EXPECT_TRUE(PlayedKernel({{kFamilyFound}, {without + with + done()}}).asked()) << "in the same one";
    EXPECT_FALSE(PlayedKernel({{kFamilyFound}, {done() + with}}).asked()) << "after the end of the answer";
}

TEST(RadioQuery, AsksAgainForADatagramThatCouldNotBeHadAtOnceAndEndsWhereItNeverCan)
{
    for (const int passing : {EINTR, EAGAIN}) {
        refusals = {passing, passing};
        EXPECT_TRUE(PlayedKernel({{kFamilyFound}, {radio_with({NL80211_BAND_5GHZ}), done()}}).asked());
        EXPECT_TRUE(refusals.empty());
    }
    refusals = {ENOBUFS};
    EXPECT_FALSE(PlayedKernel({{kFamilyFound}, {radio_with({NL80211_BAND_5GHZ}), done()}}).asked());
}

TEST(RadioQuery, PassesOverMessagesOfTheProtocolItself)
{
    const std::string noop =
        message(NLMSG_NOOP, std::string(sizeof(genlmsghdr), '\0') + bands({NL80211_BAND_5GHZ}));
    EXPECT_FALSE(PlayedKernel({{kFamilyFound}, {noop, done()}}).asked());
    EXPECT_TRUE(PlayedKernel({{kFamilyFound}, {noop, radio_with({NL80211_BAND_5GHZ}), done()}}).asked());
}

TEST(RadioQuery, AsksNothingMoreWhereTheKernelKnowsNoRadios)
{
    for (const std::string& answer :
         {error(-ENOENT), family_is(0) + error(0), message(GENL_ID_CTRL, "") + error(0),
          message(GENL_ID_CTRL, attribute(CTRL_ATTR_FAMILY_ID, "\x1D")) + error(0), // half a number
          message(GENL_ID_CTRL, attribute(CTRL_ATTR_VERSION, bytes_of(kFamily))) + error(0)}) {
        PlayedKernel kernel({{answer}, {radio_with({NL80211_BAND_5GHZ}), done()}});
        EXPECT_FALSE(kernel.asked());
        EXPECT_EQ(kernel.requests().size(), 1U);
    }
}

TEST(RadioQuery, EndsAtAMessageThatDoesNotFit)
{
    std::string cut = radio_with({NL80211_BAND_5GHZ});
    cut.resize(cut.size() - 4);
    EXPECT_FALSE(PlayedKernel({{kFamilyFound}, {cut}}).asked());
    EXPECT_FALSE(PlayedKernel({{kFamilyFound}, {std::string(sizeof(nlmsghdr), '\0')}}).asked())
        << "of no length";
    const std::string headless = message(NLMSG_MIN_TYPE, "").substr(0, sizeof(nlmsghdr));
    nlmsghdr header = {};
    std::memcpy(&header, headless.data(), sizeof header);
    header.nlmsg_len = sizeof header;
    EXPECT_FALSE(PlayedKernel({{kFamilyFound}, {bytes_of(header), done()}}).asked())
        << "without a generic header";
    EXPECT_TRUE(
        PlayedKernel({{kFamilyFound}, {bytes_of(header) + radio_with({NL80211_BAND_5GHZ}), done()}}).asked())
        << "which is not the end yet";
    EXPECT_FALSE(PlayedKernel({{kFamilyFound}, {"", radio_with({NL80211_BAND_5GHZ}), done()}}).asked())
        << "with nothing at all";
}

TEST(RadioQuery, DoesNotListenToAnybodyButTheKernel)
{
    // A name of its own is what tells the two apart: the kernel's number is 0.
    const testing_support::TempFolder folder;
    const auto bound = [&](const std::string& name) {
        UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        folder.file(name).copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        return std::pair(std::move(socket), address);
    };
    const auto [asking, askingAddress] = bound("asking");
    const auto [stranger, strangerAddress] = bound("stranger");
    for (const auto& [from, to] :
         {std::pair(&asking, &strangerAddress), std::pair(&stranger, &askingAddress)}) {
        ASSERT_EQ(::connect(from->get(), reinterpret_cast<const sockaddr*>(to), sizeof *to), 0);
    }
    for (const std::string& datagram : {kFamilyFound, radio_with({NL80211_BAND_5GHZ}) + done()}) {
        ASSERT_GT(::send(stranger.get(), datagram.data(), datagram.size(), 0), 0);
    }
    EXPECT_FALSE(kernel_offers_5ghz(asking.get(), 0, std::chrono::milliseconds(100)));
    std::array<char, 4096> request = {};
    EXPECT_GT(::recv(stranger.get(), request.data(), request.size(), 0), 0) << "the family was asked for";
    EXPECT_LT(::recv(stranger.get(), request.data(), request.size(), 0), 0) << "and not believed";
}

TEST(RadioQuery, GivesUpWhereNobodyAnswers)
{
    std::array<int, 2> ends = {};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()), 0);
    const UniqueFd asking(ends[0]);
    const UniqueFd silent(ends[1]);
    {
        const testing_support::InterruptingSignals signals;
        const auto began = std::chrono::steady_clock::now();
        EXPECT_FALSE(kernel_offers_5ghz(asking.get(), 0, std::chrono::milliseconds(100)));
        EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(99))
            << "a signal is no answer";
    }
    EXPECT_FALSE(kernel_offers_5ghz(-1, 0, std::chrono::seconds(20)))
        << "what cannot be asked is not waited for";
}

} // namespace
