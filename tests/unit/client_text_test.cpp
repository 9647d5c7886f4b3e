#include "client/text.hpp"

#include <gtest/gtest.h>

#include <clocale>
#include <string>

#include "client/signal_bars.hpp"
#include "client/table.hpp"

namespace {

using client::display_width;
using client::drawn_bars;
using client::escaped;
using client::padded;
using client::signal_bars;
using client::Table;

/** Characters have the width that a UTF-8 locale gives them. */
class ClientText : public testing::Test
{
protected:
    void SetUp() override { ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr); }
    void TearDown() override { std::setlocale(LC_CTYPE, "C"); }
};

TEST_F(ClientText, OrdinaryTextStaysAsItIs)
{
    for (const char* text : {"", "home", "Café Öl", "喫茶店", "👍", "a b", "\"'%s$x"}) {
        EXPECT_EQ(escaped(text), text);
    }
}

TEST_F(ClientText, ControlCharactersBecomeVisible)
{
    EXPECT_EQ(escaped("\x1b[2J"), "\\x1b[2J");
    EXPECT_EQ(escaped("a\nb\tc\rd\x7f"), "a\\nb\\tc\\x0dd\\x7f");
    EXPECT_EQ(escaped(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(escaped("\u0085\u009b"), "\\u{85}\\u{9b}");
}

TEST_F(ClientText, ABackslashIsDoubledSoThatEscapesCannotBeForged)
{
    EXPECT_EQ(escaped("\\x1b"), "\\\\x1b");
}

TEST_F(ClientText, BytesThatAreNoUtf8BecomeVisible)
{
    EXPECT_EQ(escaped("caf\xe9"), "caf\\xe9");
    EXPECT_EQ(escaped("\xc0\xaf"), "\\xc0\\xaf") << "overlong";
    EXPECT_EQ(escaped("\xed\xa0\x80"), "\\xed\\xa0\\x80") << "surrogate";
    EXPECT_EQ(escaped("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80") << "beyond Unicode";
    EXPECT_EQ(escaped("\xe2\x82"), "\\xe2\\x82") << "cut off";
}

TEST_F(ClientText, InvisibleAndTurningCharactersBecomeVisible)
{
    EXPECT_EQ(escaped("a\u202eb\u2066c"), "a\\u{202e}b\\u{2066}c");
    EXPECT_EQ(escaped("a\u200bb\ufeff\u00ad"), "a\\u{200b}b\\u{feff}\\u{ad}");
    EXPECT_EQ(escaped("\u2028\u3164"), "\\u{2028}\\u{3164}");
}

TEST_F(ClientText, AMarkWithNothingToStandOnBecomesVisible)
{
    EXPECT_EQ(escaped("\u0301a"), "\\u{301}a");
    EXPECT_EQ(escaped("a\u0301"), "a\u0301");
    EXPECT_EQ(escaped("\xff\u0301"), "\\xff\u0301");
}

TEST_F(ClientText, WhatTheLocaleCannotShowBecomesVisible)
{
    std::setlocale(LC_CTYPE, "C");
    EXPECT_EQ(escaped("café"), "caf\\u{e9}");
}

TEST_F(ClientText, WidthCountsColumnsNotBytes)
{
    EXPECT_EQ(display_width(""), 0U);
    EXPECT_EQ(display_width("home"), 4U);
    EXPECT_EQ(display_width("Café"), 4U);
    EXPECT_EQ(display_width("喫茶店"), 6U);
    EXPECT_EQ(display_width("a\u0301"), 1U);
    EXPECT_EQ(display_width("👍"), 2U);
    EXPECT_EQ(display_width("\xff\n"), 1U) << "a byte that is no text is drawn as one sign";
}

TEST_F(ClientText, PaddingFillsUpToTheColumn)
{
    EXPECT_EQ(padded("喫茶", 6), "喫茶  ");
    EXPECT_EQ(padded("too wide", 3), "too wide");
}

TEST_F(ClientText, TableColumnsAreAlignedByWidth)
{
    Table table;
    table.add({{"喫茶", "", ""}, {"1", "", ""}, {"x", "", ""}});
    table.add({{"a", "", ""}, {"22", "", ""}});
    table.add({{"", "", ""}, {"3", "", ""}, {"y", "", ""}});
    EXPECT_EQ(table.lines(), (std::vector<std::string>{"喫茶  1   x", "a     22", "      3   y"}));
}

TEST_F(ClientText, ColoursTakeNoColumns)
{
    Table table;
    table.add({{"a", "\033[1m", "\033[0m"}, {"b", "", ""}});
    table.add({{"ccc", "", ""}, {"d", "", ""}});
    EXPECT_EQ(table.lines(), (std::vector<std::string>{"\033[1ma\033[0m    b", "ccc  d"}));
}

TEST(ClientBars, ChangeAtTheirLimits)
{
    EXPECT_EQ(signal_bars(0), 4);
    EXPECT_EQ(signal_bars(-55), 4);
    EXPECT_EQ(signal_bars(-56), 3);
    EXPECT_EQ(signal_bars(-67), 3);
    EXPECT_EQ(signal_bars(-68), 2);
    EXPECT_EQ(signal_bars(-75), 2);
    EXPECT_EQ(signal_bars(-76), 1);
    EXPECT_EQ(signal_bars(-85), 1);
    EXPECT_EQ(signal_bars(-86), 0);
    EXPECT_EQ(signal_bars(-32768), 0);
}

TEST(ClientBars, AreFourColumnsInBothAlphabets)
{
    EXPECT_EQ(drawn_bars(0, true), "····");
    EXPECT_EQ(drawn_bars(3, true), "▂▄▆·");
    EXPECT_EQ(drawn_bars(4, false), "####");
    EXPECT_EQ(drawn_bars(1, false), "#...");
}

} // namespace
