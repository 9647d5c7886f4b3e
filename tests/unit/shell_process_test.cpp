#include "utils/shell_process.hpp"

#include <cerrno>
#include <csignal>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <sys/wait.h>

#include "support/unique_fd.hpp"

namespace {

constexpr int kExitStatusOne = 256;

TEST(ShellRun, GivesTheRawWaitStatus)
{
    EXPECT_EQ(shell_run("true"), 0);
    EXPECT_EQ(shell_run("exit 1"), kExitStatusOne);
    EXPECT_EQ(shell_run("exit 255"), 255 * kExitStatusOne);
    EXPECT_EQ(shell_run("kill -TERM $$"), SIGTERM);
    EXPECT_EQ(shell_run("/nowhere/at-all 2>/dev/null"), 127 * kExitStatusOne);
}

TEST(ShellRun, GivesTheCommandNoDescriptorsBesideTheStandardOnes)
{
    const UniqueFd inheritable(open("/dev/null", O_RDONLY));
    ASSERT_TRUE(inheritable);
    EXPECT_EQ(shell_run("test ! -e /proc/self/fd/" + std::to_string(inheritable.get())), 0);
}

TEST(ShellPipe, ReadsLineByLine)
{
    ShellPipe pipe("printf 'one\\n\\ntwo'");
    ASSERT_TRUE(pipe);
    std::string line;
    EXPECT_TRUE(pipe.read_line(line, 255));
    EXPECT_EQ(line, "one\n");
    EXPECT_TRUE(pipe.read_line(line, 255));
    EXPECT_EQ(line, "\n");
    EXPECT_TRUE(pipe.read_line(line, 255));
    EXPECT_EQ(line, "two");
    EXPECT_FALSE(pipe.read_line(line, 255));
    EXPECT_EQ(line, "");
}

TEST(ShellPipe, ReadsNoMoreOfALineThanTheLimit)
{
    ShellPipe pipe("printf 'abcde\\n'");
    std::string line;
    EXPECT_TRUE(pipe.read_line(line, 3));
    EXPECT_EQ(line, "abc");
    EXPECT_TRUE(pipe.read_line(line, 3));
    EXPECT_EQ(line, "de\n");
}

TEST(ShellPipe, ReadsToTheEndAcrossPausesOfTheCommand)
{
    ShellPipe pipe("printf one; sleep 0.1; printf two");
    EXPECT_EQ(pipe.read(256), "onetwo");
    EXPECT_EQ(pipe.read(256), "");
}

TEST(ShellPipe, ReadsOnAfterASignal)
{
    struct sigaction noted = {};
    struct sigaction before = {};
    noted.sa_handler = [](int) {}; // without SA_RESTART
    sigaction(SIGALRM, &noted, &before);
    ShellPipe pipe("sleep 0.3; printf late");
    const itimerval often = {.it_interval = {0, 20'000}, .it_value = {0, 20'000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_EQ(pipe.read(256), "late");
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

TEST(ShellPipe, ReadsNoMoreThanTheLimit)
{
    ShellPipe pipe("printf abcdef");
    EXPECT_EQ(pipe.read(4), "abcd");
    EXPECT_EQ(pipe.read(4), "ef");
}

TEST(ShellPipe, EndsACommandThatNobodyReadsAnyMore)
{
    ShellPipe pipe("yes");
    EXPECT_EQ(pipe.read(2), "y\n");
}

TEST(ShellPipe, LeavesNoChildBehind)
{
    ShellPipe("true").read(1);
    ShellPipe("exit 3").read(1);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(ShellPipe, YieldsNothingFromACommandThatFails)
{
    ShellPipe pipe("exit 1");
    std::string line = "before";
    EXPECT_FALSE(pipe.read_line(line, 255));
    EXPECT_EQ(line, "");
}

TEST(TextOf, EndsAtTheFirstNul)
{
    EXPECT_EQ(text_of(std::string("ab\0cd", 5)), "ab");
    EXPECT_EQ(text_of("ab"), "ab");
    EXPECT_EQ(text_of(""), "");
}

} // namespace
