#include "utils/shell_process.hpp"

#include <array>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include "support/signal_set.hpp"

namespace {

constexpr const char* kShell = "/bin/sh";
constexpr int kNoShellStatus = 127 << 8;

/** Attributes and file actions of a child with default signals, and only the standard descriptors. */
class ShellSpawn
{
public:
    ShellSpawn()
    {
        posix_spawnattr_init(&attributes_);
        posix_spawn_file_actions_init(&actions_);

        const sigset_t none = signal_set({});
        posix_spawnattr_setsigmask(&attributes_, &none);
        sigset_t all;
        sigfillset(&all);
        posix_spawnattr_setsigdefault(&attributes_, &all);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~ShellSpawn()
    {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }
    ShellSpawn(const ShellSpawn&) = delete;
    ShellSpawn& operator=(const ShellSpawn&) = delete;

    void redirect_output(int fd) { posix_spawn_file_actions_adddup2(&actions_, fd, STDOUT_FILENO); }

    /** Returns 0 and the child's process id, or an errno number. */
    int run(const std::string& command, pid_t& child)
    {
        posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
        std::string name = "sh";
        std::string option = "-c";
        std::string line = command;
        const std::array<char*, 4> arguments = {name.data(), option.data(), line.data(), nullptr};
        return posix_spawn(&child, kShell, &actions_, &attributes_, arguments.data(), environ);
    }

private:
    posix_spawnattr_t attributes_{};
    posix_spawn_file_actions_t actions_{};
};

/** Waits for the child's end. Returns its wait status, or -1. */
int wait_for(pid_t child)
{
    int status = -1;
    pid_t ended = 0;
    do {
        ended = waitpid(child, &status, 0);
    } while (ended < 0 && errno == EINTR);
    return ended == child ? status : -1;
}

} // namespace

int shell_run(const std::string& command)
{
    pid_t child = -1;
    const int error = ShellSpawn().run(command, child);
    if (error == ENOENT || error == EACCES) {
        return kNoShellStatus;
    }
    return error == 0 ? wait_for(child) : -1;
}

ShellPipe::ShellPipe(const std::string& command)
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return;
    }
    UniqueFd reader(ends[0]);
    const UniqueFd writer(ends[1]);

    ShellSpawn spawn;
    spawn.redirect_output(writer.get());
    if (spawn.run(command, child_) == 0) {
        output_ = std::move(reader);
    }
}

ShellPipe::~ShellPipe()
{
    // Closed first, so that a command that still writes ends instead of waiting for a reader.
    output_.reset();
    if (child_ > 0) {
        wait_for(child_);
    }
}

std::string ShellPipe::read(size_t limit)
{
    std::string text(limit, '\0');
    size_t filled = 0;
    while (output_ && filled < limit) {
        const ssize_t got = ::read(output_.get(), text.data() + filled, limit - filled);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        filled += static_cast<size_t>(got);
    }
    text.resize(filled);
    return text;
}

bool ShellPipe::read_line(std::string& line, size_t limit)
{
    line.clear();
    while (line.size() < limit) {
        const std::string byte = read(1);
        if (byte.empty()) {
            break;
        }
        line += byte;
        if (byte.front() == '\n') {
            break;
        }
    }
    return !line.empty();
}

std::string_view text_of(const std::string& bytes)
{
    return {bytes.c_str()};
}
