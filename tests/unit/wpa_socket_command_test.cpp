#include "listeners/wpa_socket_command.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <syslog.h>

#include "listeners/control_request.hpp"
#include "support/captured_log.hpp"

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::captured_log;
using testing_support::line;
using testing_support::LogLine;

namespace {

/** What the other side answers, and what it was asked. */
struct
{
    int result = 0;
    std::string reply;
    std::vector<std::string> requests;
    size_t room = 0;
    bool zeroed = false;
    std::chrono::nanoseconds left{};
} library;

/** Stands for a connection; never looked into. */
wpa_ctrl* const kConnection = reinterpret_cast<wpa_ctrl*>(&library);

class WpaSocketCommand : public testing::Test
{
protected:
    void SetUp() override
    {
        library = {};
        captured_log().clear();
    }

    /** An area that shows what was written to it and what was not. */
    std::string area = std::string(40, '#');
};

} // namespace

int32_t control_request(wpa_ctrl*, const char* command, char* reply, size_t& length, const ControlWait& wait)
{
    library.requests.emplace_back(command);
    library.room = length;
    library.left = wait.until - std::chrono::steady_clock::now();
    library.zeroed = std::all_of(reply, reply + length + 1, [](char byte) { return byte == '\0'; });
    length = library.reply.copy(reply, length);
    return library.result;
}

namespace {

TEST_F(WpaSocketCommand, WithoutAConnectionIsDroppedAndNobodyIsAsked)
{
    EXPECT_EQ(wpa_socket_cmd(nullptr, "STA-FIRST", area.data(), 32), -1);
    EXPECT_THAT(library.requests, IsEmpty());
    EXPECT_EQ(area, std::string(40, '#'));
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(line(LOG_ERR, "wpa_socket_cmd: Not connected to socket - command dropped.")));
}

TEST_F(WpaSocketCommand, SendsTheCommandAndPadsTheReplyWithNuls)
{
    library.reply = "PONG\n";
    EXPECT_EQ(wpa_socket_cmd(kConnection, "PING", area.data(), 32), 0);
    EXPECT_THAT(library.requests, ElementsAre("PING"));
    EXPECT_EQ(library.room, 4095U);
    EXPECT_TRUE(library.zeroed);
    EXPECT_EQ(area, "PONG\n" + std::string(27, '\0') + std::string(8, '#'));
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(WpaSocketCommand, IsWaitedForTenSecondsInAllOrUntilTheGivenTime)
{
    wpa_socket_cmd(kConnection, "PING", area.data(), 32);
    EXPECT_LE(library.left, std::chrono::seconds(10));
    EXPECT_GT(library.left, std::chrono::seconds(5));

    wpa_socket_cmd(kConnection, "PING", area.data(), 32,
                   std::chrono::steady_clock::now() + std::chrono::hours(1));
    EXPECT_GT(library.left, std::chrono::minutes(50));
}

TEST_F(WpaSocketCommand, AReplyThatFillsTheAreaHasNoNul)
{
    library.reply = std::string(32, 'a');
    EXPECT_EQ(wpa_socket_cmd(kConnection, "STA-FIRST", area.data(), 32), 0);
    EXPECT_EQ(area, std::string(32, 'a') + std::string(8, '#'));
}

TEST_F(WpaSocketCommand, ALongerReplyIsCutToTheArea)
{
    library.reply = std::string(5000, 'b');
    EXPECT_EQ(wpa_socket_cmd(kConnection, "STA-FIRST", area.data(), 32), 0);
    EXPECT_EQ(area, std::string(32, 'b') + std::string(8, '#'));
}

TEST_F(WpaSocketCommand, NoMoreThanTheBufferIsCopiedToALargerArea)
{
    library.reply = std::string(5000, 'c');
    std::string large(5000, '#');
    EXPECT_EQ(wpa_socket_cmd(kConnection, "STATUS", large.data(), large.size()), 0);
    EXPECT_EQ(large, std::string(4095, 'c') + std::string(1, '\0') + std::string(904, '#'));
}

TEST_F(WpaSocketCommand, AReplyEndsAtItsFirstNul)
{
    library.reply = std::string("ab\0cd", 5);
    EXPECT_EQ(wpa_socket_cmd(kConnection, "STATUS", area.data(), 8), 0);
    EXPECT_EQ(area, "ab" + std::string(6, '\0') + std::string(32, '#'));
}

TEST_F(WpaSocketCommand, AnAreaOfNoSizeIsLeftAlone)
{
    library.reply = "PONG\n";
    EXPECT_EQ(wpa_socket_cmd(kConnection, "PING", area.data(), 0), 0);
    EXPECT_EQ(area, std::string(40, '#'));
}

TEST_F(WpaSocketCommand, AFailureIsPassedOn)
{
    for (const int result : {-1, -2}) {
        captured_log().clear();
        library.result = result;
        EXPECT_EQ(wpa_socket_cmd(kConnection, "STA-NEXT 02:00", area.data(), 32), result);
        EXPECT_EQ(area, std::string(40, '#'));
        EXPECT_THAT(captured_log().lines(),
                    ElementsAre(line(LOG_ERR, "wpa_socket_cmd: 'STA-NEXT 02:00' command failed.")));
    }
}

TEST_F(WpaSocketCommand, AReplyThatStartsWithFailIsARefusal)
{
    for (const char* reply : {"FAIL", "FAIL\n", "FAIL-BUSY\n", "FAILURE"}) {
        captured_log().clear();
        library.reply = reply;
        EXPECT_EQ(wpa_socket_cmd(kConnection, "PING", area.data(), 32), -2) << reply;
        EXPECT_EQ(area, std::string(40, '#'));
        EXPECT_THAT(captured_log().lines(),
                    ElementsAre(line(LOG_ERR, "wpa_socket_cmd: 'PING' received 'FAIL' status.")));
    }
}

TEST_F(WpaSocketCommand, AReplyThatOnlyResemblesARefusalIsNone)
{
    for (const char* reply : {"", "FAI", "fail\n", " FAIL", "UNKNOWN COMMAND\n"}) {
        library.reply = reply;
        EXPECT_EQ(wpa_socket_cmd(kConnection, "PING", area.data(), 32), 0) << reply;
        EXPECT_STREQ(area.c_str(), reply);
    }
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST(WpaSocketBufferDump, WritesEachByteInLowerCaseWithoutLeadingZeros)
{
    captured_log().clear();
    const unsigned char bytes[] = {0x00, 0x0a, 0x7f, 0x80, 0xff, 0x11};
    wpa_socket_buffer_dump(bytes, 5);
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(line(LOG_DEBUG, "wpa_socket_buffer_dump: 0x0 0xa 0x7f 0x80 0xff")));
}

TEST(WpaSocketBufferDump, OfNothingWritesAnEmptyText)
{
    captured_log().clear();
    const unsigned char byte = 1;
    wpa_socket_buffer_dump(&byte, 0);
    wpa_socket_buffer_dump(&byte, -3);
    wpa_socket_buffer_dump(nullptr, 0);
    const LogLine empty{LOG_DEBUG, "wpa_socket_buffer_dump:"};
    EXPECT_THAT(captured_log().lines(), ElementsAre(empty, empty, empty));
}

} // namespace
