// Where results go: what replaces what on a terminal of a certain size, and what follows what elsewhere.

#include "client/output.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include "support/unique_fd.hpp"

namespace {

using client::Output;
using Lines = std::vector<std::string>;

/** Puts something else in the place of standard output as long as it lives. */
class StandsInForOutput
{
public:
    explicit StandsInForOutput(int descriptor) : before_(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3))
    {
        std::fflush(stdout);
        ::dup2(descriptor, STDOUT_FILENO);
    }
    ~StandsInForOutput()
    {
        std::fflush(stdout);
        ::dup2(before_.get(), STDOUT_FILENO);
    }
    StandsInForOutput(const StandsInForOutput&) = delete;
    StandsInForOutput& operator=(const StandsInForOutput&) = delete;

private:
    UniqueFd before_;
};

/** A terminal of this many rows, which keeps the bytes as they are. */
class PlayedTerminal
{
public:
    explicit PlayedTerminal(unsigned short rows)
    {
        ::setenv("TERM", "xterm", 1);
        termios raw = {};
        ::cfmakeraw(&raw);
        winsize size = {};
        size.ws_row = rows;
        size.ws_col = 80;
        int ours = -1;
        int theirs = -1;
        EXPECT_EQ(::openpty(&ours, &theirs, nullptr, &raw, &size), 0);
        ours_.reset(ours);
        theirs_.reset(theirs);
        ::fcntl(ours, F_SETFL, O_NONBLOCK);
    }

    int descriptor() const { return theirs_.get(); }

    /** What has been written since it was asked last. */
    std::string text() const
    {
        std::string text;
        char part[1024];
        for (ssize_t count = 0; (count = ::read(ours_.get(), part, sizeof part)) > 0;) {
            text.append(part, static_cast<std::size_t>(count));
        }
        return text;
    }

private:
    UniqueFd ours_;
    UniqueFd theirs_;
};

/** What replacing nothing by the first lines, and those by the second, writes on a terminal. */
Lines replaced(unsigned short rows, const Lines& first, const Lines& second)
{
    const PlayedTerminal terminal(rows);
    const StandsInForOutput standsIn(terminal.descriptor());
    Output output(false);
    output.replace(first);
    Lines written = {terminal.text()};
    output.replace(second);
    written.push_back(terminal.text());
    return written;
}

/** Clears from here to the end, lets nothing wrap, and writes the text; `up` goes to where that begins. */
std::string drawn(const std::string& up, const std::string& text)
{
    return up + "\r\033[J\033[?7l" + text + "\033[?7h";
}

TEST(ClientOutput, LinesTakeThePlaceOfThoseBefore)
{
    EXPECT_EQ(replaced(24, {"a", "b"}, {"c"}), (Lines{drawn("", "a\nb\n"), drawn("\033[2A", "c\n")}));
    EXPECT_EQ(replaced(24, {}, {"c"}), (Lines{drawn("", ""), drawn("", "c\n")}));
}

TEST(ClientOutput, WhatDoesNotFitAboveTheLastRowIsCounted)
{
    const Lines three = {"a", "b", "c"};
    const Lines four = {"a", "b", "c", "d"};
    EXPECT_EQ(replaced(4, three, three), (Lines{drawn("", "a\nb\nc\n"), drawn("\033[3A", "a\nb\nc\n")}));
    EXPECT_EQ(replaced(4, four, three),
              (Lines{drawn("", "a\nb\n... and 2 lines more\n"), drawn("\033[3A", "a\nb\nc\n")}));
    EXPECT_EQ(replaced(3, three, {}), (Lines{drawn("", "a\n... and 2 lines more\n"), drawn("\033[2A", "")}));
}

TEST(ClientOutput, ATerminalHasThreeRowsAtLeastAnd24WhereNobodyKnows)
{
    const Lines two = {"a", "b"};
    EXPECT_EQ(replaced(1, two, {}), (Lines{drawn("", "a\nb\n"), drawn("\033[2A", "")}));
    EXPECT_EQ(replaced(1, {"a", "b", "c"}, {}),
              (Lines{drawn("", "a\n... and 2 lines more\n"), drawn("\033[2A", "")}));
    EXPECT_EQ(replaced(0, Lines(23, "x"), {})[1], drawn("\033[23A", ""));
    EXPECT_NE(replaced(0, Lines(24, "x"), {})[0].find("... and 2 lines more"), std::string::npos);
}

TEST(ClientOutput, ElsewhereLinesFollowThoseBeforeAfterAnEmptyOne)
{
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const UniqueFd reading(ends[0]);
    const UniqueFd writing(ends[1]);
    {
        const StandsInForOutput standsIn(writing.get());
        Output output(false);
        output.replace({"a", "b"});
        output.replace({"c"});
        output.replace({});
        output.replace({"d"});
        EXPECT_TRUE(output.complete());
        Output(true).replace({"for people"});
    }
    char text[256];
    const ssize_t count = ::read(reading.get(), text, sizeof text);
    EXPECT_EQ(std::string(text, count > 0 ? static_cast<std::size_t>(count) : 0), "a\nb\n\nc\n\nd\n");
}

TEST(ClientOutput, WhatCannotBeWrittenMakesItIncomplete)
{
    const UniqueFd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    const StandsInForOutput standsIn(full.get());
    Output output(false);
    EXPECT_TRUE(output.complete());
    output.line("a");
    EXPECT_FALSE(output.complete());
    std::clearerr(stdout);
}

} // namespace
