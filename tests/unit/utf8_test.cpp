#include "support/utf8.hpp"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include <systemd/sd-bus.h>

#include "support/bus_pair.hpp"

namespace {

using namespace std::string_literals;

const std::string kLost = "\xEF\xBF\xBD";

std::string lost_times(int count)
{
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += kLost;
    }
    return text;
}

} // namespace

TEST(Utf8Text, LeavesValidTextAlone)
{
    for (const std::string& text :
         {""s, "Korrin One"s, "\x01\x7F"s, "\xC2\x80\xDF\xBF"s,
          "\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBD"s, "\xF0\x90\x80\x80\xF4\x8F\xBF\xBD"s}) {
        EXPECT_EQ(utf8_text(text), text);
    }
}

TEST(Utf8Text, ReplacesEachByteThatIsNoPartOfASequence)
{
    EXPECT_EQ(utf8_text("\x80"), kLost);
    EXPECT_EQ(utf8_text("\xFF\xFE"), lost_times(2));
    EXPECT_EQ(utf8_text("a\xC3"), "a" + kLost);
    EXPECT_EQ(utf8_text("\xC3"
                        "a"),
              kLost + "a");
    EXPECT_EQ(utf8_text("\xE2\x82"
                        "a"),
              lost_times(2) + "a");
    EXPECT_EQ(utf8_text("\xF0\x9F\x93"), lost_times(3));
    EXPECT_EQ(utf8_text("\xF8\x88\x80\x80\x80"), lost_times(5));
    EXPECT_EQ(utf8_text("\xE2\xE2\x82\xAC"), kLost + "\xE2\x82\xAC");
}

TEST(Utf8Text, ReplacesWhatIsEncodedInTooManyBytes)
{
    EXPECT_EQ(utf8_text("\xC0\x80"), lost_times(2));
    EXPECT_EQ(utf8_text("\xC1\xBF"), lost_times(2));
    EXPECT_EQ(utf8_text("\xE0\x9F\xBF"), lost_times(3));
    EXPECT_EQ(utf8_text("\xF0\x8F\xBF\xBD"), lost_times(4)); // of a character that is one
}

TEST(Utf8Text, ReplacesCodePointsThatAreNoCharacters)
{
    EXPECT_EQ(utf8_text("\xED\xA0\x80"), lost_times(3)); // surrogates
    EXPECT_EQ(utf8_text("\xED\xBF\xBF"), lost_times(3));
    EXPECT_EQ(utf8_text("\xEF\xB7\x90"), lost_times(3));     // U+FDD0
    EXPECT_EQ(utf8_text("\xEF\xB7\xAF"), lost_times(3));     // U+FDEF
    EXPECT_EQ(utf8_text("\xEF\xBF\xBE"), lost_times(3));     // U+FFFE
    EXPECT_EQ(utf8_text("\xF4\x8F\xBF\xBF"), lost_times(4)); // U+10FFFF
    EXPECT_EQ(utf8_text("\xF4\x90\x80\x80"), lost_times(4)); // beyond the last
    EXPECT_EQ(utf8_text("\xEF\xB7\x8F\xEF\xB7\xB0"), "\xEF\xB7\x8F\xEF\xB7\xB0");
}

TEST(Utf8Text, ReplacesEachNul)
{
    EXPECT_EQ(utf8_text("a\0b\0"s), "a" + kLost + "b" + kLost);
}

TEST(Utf8Text, LeavesOutWhatIsToBeReplacedByNothing)
{
    EXPECT_EQ(utf8_text("B\xFCro\0 \xEF\xBF\xBE\xC3"s, ""), "Bro ");
    EXPECT_EQ(utf8_text("B\u00FCro", ""), "B\u00FCro");
}

TEST(Utf8Text, IsToldFromBytesThatAreNone)
{
    EXPECT_TRUE(is_bus_text(""));
    EXPECT_TRUE(is_bus_text("Caf\u00E9 \U0001F44D"));
    EXPECT_TRUE(is_bus_text("\u0080\u07ff\u0800\ud7ff\ue000\ufffd\U00010000\U0010fffd"));
    EXPECT_FALSE(is_bus_text("a\0b"s));
    EXPECT_FALSE(is_bus_text("caf\xE9"));
    EXPECT_FALSE(is_bus_text("\xE2\x82"));
    EXPECT_FALSE(is_bus_text("\xED\xBF\xBF")) << "the last surrogate";
    EXPECT_FALSE(is_bus_text("a\uFFFF"));
}

TEST(Utf8Text, IsAlwaysATextThatTheBusLibrarySends)
{
    const testing_support::BusPair pair;
    sd_bus_message* created = nullptr;
    ASSERT_GE(sd_bus_message_new_signal(pair.service(), &created, "/a", "a.b", "C"), 0);
    const MessagePtr message(created);
    ASSERT_GE(sd_bus_message_open_container(message.get(), 'a', "s"), 0);

    std::mt19937 random(4711); // NOLINT(cert-msc51-cpp): the same bytes in each run
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> lead(0xC0, 0xFF);
    for (int round = 0; round < 2000; ++round) {
        std::string bytes(static_cast<size_t>(round % 33), '\0');
        for (size_t i = 0; i < bytes.size(); ++i) {
            // Half of the texts are made of what looks like sequences.
            bytes[i] = static_cast<char>(round % 2 == 0 ? byte(random)
                                         : i % 3 == 0   ? lead(random)
                                                        : 0x80 | byte(random) % 64);
        }
        const std::string text = utf8_text(bytes);
        ASSERT_GE(sd_bus_message_append(message.get(), "s", text.c_str()), 0)
            << testing::PrintToString(bytes);
        ASSERT_EQ(utf8_text(text), text);
        ASSERT_EQ(is_bus_text(bytes), text == bytes) << testing::PrintToString(bytes);
    }
}
