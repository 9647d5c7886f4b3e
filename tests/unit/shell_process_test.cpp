#include "utils/shell_process.hpp"

#include <cerrno>
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/wait.h>

#include "support/interrupting_signals.hpp"
#include "support/signal_set.hpp"
#include "support/unique_fd.hpp"

namespace {

using testing::ElementsAre;
using testing_support::InterruptingSignals;

constexpr int kExitStatusOne = 256;

/** Why no shell can be started; 0 when one can. */
int spawnError = 0;

} // namespace

/** Stands before the C library's. */
extern "C" int posix_spawn(pid_t* child, const char* path, const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const arguments[],
                           char* const environment[])
{
    static const auto kReal = reinterpret_cast<decltype(&posix_spawn)>(dlsym(RTLD_NEXT, "posix_spawn"));
    return spawnError != 0 ? spawnError : kReal(child, path, actions, attributes, arguments, environment);
}

namespace {

TEST(ShellRun, GivesTheRawWaitStatus)
{
    EXPECT_EQ(shell_run("true"), 0);
    EXPECT_EQ(shell_run("exit 1"), kExitStatusOne);
    EXPECT_EQ(shell_run("exit 255"), 255 * kExitStatusOne);
    EXPECT_EQ(shell_run("kill -TERM $$"), SIGTERM);
    EXPECT_EQ(shell_run("/nowhere/at-all 2>/dev/null"), 127 * kExitStatusOne);
}

TEST(ShellRun, WithoutAShellThereIsNoCommandAndWithoutAProcessNoStatus)
{
    for (const auto& [error, status] : {std::pair(ENOENT, 127 * kExitStatusOne),
                                        {EACCES, 127 * kExitStatusOne},
                                        {EAGAIN, -1},
                                        {ENOMEM, -1}}) {
        spawnError = error;
        EXPECT_EQ(shell_run("true"), status) << error;
        ShellPipe pipe("echo text");
        EXPECT_FALSE(pipe) << error;
        EXPECT_EQ(pipe.read(100), "") << error;
    }
    spawnError = 0;
}

TEST(ShellRun, WaitsOnAfterASignal)
{
    const InterruptingSignals signals;
    EXPECT_EQ(shell_run("sleep 0.3; exit 1"), kExitStatusOne);
}

TEST(ShellRun, GivesTheCommandTheStandardDescriptorsAndNoOthers)
{
    const UniqueFd inheritable(open("/dev/null", O_RDONLY));
    ASSERT_TRUE(inheritable);
    EXPECT_EQ(shell_run("test ! -e /proc/self/fd/" + std::to_string(inheritable.get())), 0);
    EXPECT_EQ(shell_run("test -e /proc/self/fd/0 -a -e /proc/self/fd/1 -a -e /proc/self/fd/2"), 0);
}

TEST(ShellRun, GivesTheCommandEverySignalAsItWasAtFirst)
{
    const sigset_t blocked = signal_set({SIGUSR1});
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const auto handler = std::signal(SIGUSR2, SIG_IGN);
    EXPECT_EQ(shell_run("kill -USR1 $$; exit 1"), SIGUSR1);
    EXPECT_EQ(shell_run("kill -USR2 $$; exit 1"), SIGUSR2);
    std::signal(SIGUSR2, handler);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(ShellRun, ACommandThatSomebodyElseWaitedForHasNoStatus)
{
    const auto handler = std::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(shell_run("true"), -1);
    std::signal(SIGCHLD, handler);
}

TEST(ShellRun, KeepsNoMemory)
{
    spawnError = EAGAIN;
    shell_run("true");
    const size_t before = mallinfo2().uordblks;
    for (int round = 0; round < 100; ++round) {
        shell_run("true");
    }
    EXPECT_EQ(mallinfo2().uordblks, before);
    spawnError = 0;
}

/** All lines of a command, each in pieces of at most so many bytes. Should they never end, the first ten. */
std::vector<std::string> lines_of(const char* command, size_t limit)
{
    ShellPipe pipe(command);
    EXPECT_TRUE(pipe);
    std::vector<std::string> lines;
    std::string line;
    while (lines.size() < 10 && pipe.read_line(line, limit)) {
        lines.push_back(line);
    }
    EXPECT_EQ(line, "");
    return lines;
}

TEST(ShellPipe, ReadsLineByLine)
{
    EXPECT_THAT(lines_of("printf 'one\\n\\ntwo'", 255), ElementsAre("one\n", "\n", "two"));
}

TEST(ShellPipe, ReadsNoMoreOfALineThanTheLimit)
{
    EXPECT_THAT(lines_of("printf 'abcde\\n'", 3), ElementsAre("abc", "de\n"));
}

TEST(ShellPipe, ReadsToTheEndAcrossPausesOfTheCommand)
{
    ShellPipe pipe("printf one; sleep 0.1; printf twothree; sleep 0.1; printf four");
    EXPECT_EQ(pipe.read(6), "onetwo");
    EXPECT_EQ(pipe.read(256), "threefour");
    EXPECT_EQ(pipe.read(256), "");
}

TEST(ShellPipe, ReadsOnAfterASignal)
{
    const InterruptingSignals signals;
    ShellPipe pipe("sleep 0.3; printf late");
    EXPECT_EQ(pipe.read(256), "late");
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
