#include "commands.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/unique_fd.hpp"

namespace doctor {

namespace {

constexpr std::size_t kMostOutput = std::size_t{512} * 1024;

/** A descriptor from which the text can be read, and opened again as /dev/stdin; -1 when there is no memory.
 */
UniqueFd input_of(const std::string& text)
{
    UniqueFd file(::memfd_create("vantora-doctor", MFD_CLOEXEC));
    std::string_view left = text;
    while (file && !left.empty()) {
        const ssize_t written = ::write(file.get(), left.data(), left.size());
        if (written <= 0) {
            return {};
        }
        left.remove_prefix(static_cast<std::size_t>(written));
    }
    if (file) {
        ::lseek(file.get(), 0, SEEK_SET);
    }
    return file;
}

/** Our environment, but for the language: what programs say is read, so they are to say it in one. */
std::vector<std::string> plain_environment()
{
    std::vector<std::string> settings = {"LC_ALL=C"};
    for (char** setting = environ; *setting != nullptr; ++setting) {
        const std::string_view text = *setting;
        if (!text.starts_with("LC_ALL=") && !text.starts_with("LANGUAGE=")) {
            settings.emplace_back(text);
        }
    }
    return settings;
}

/** Pointers to words, with a null at the end, as the kernel wants them. */
std::vector<char*> pointers_to(std::vector<std::string>& words)
{
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

/** What remains to be done in the child: only what may be called after a fork. */
[[noreturn]] void become(const char* path, char* const* words, char* const* environment, int input,
                         int output)
{
    ::setpgid(0, 0); // so that all that it starts can be ended with it
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    ::execve(path, words, environment);
    ::_exit(127);
}

/** Reads until everybody has closed the other end; false when the time was over before. */
bool read_all(int pipe, std::string& output, Patience::Clock::time_point deadline)
{
    std::array<char, 4096> part{};
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Patience::Clock::now()).count();
        pollfd waiting = {pipe, POLLIN, 0};
        const int ready = left > 0 ? ::poll(&waiting, 1, static_cast<int>(left)) : 0;
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return false;
        }
        const ssize_t got = ::read(pipe, part.data(), part.size());
        if (got == 0) {
            return true;
        }
        if (got < 0 && errno != EINTR && errno != EAGAIN) {
            return true;
        }
        if (got > 0 && output.size() < kMostOutput) {
            output.append(part.data(), static_cast<std::size_t>(got));
        }
    }
}

/** Waits for the end of a child; after the deadline it is killed. Returns its wait status. */
int wait_for(pid_t child, Patience::Clock::time_point deadline, bool& timedOut)
{
    int status = 0;
    for (;;) {
        const pid_t ended = ::waitpid(child, &status, WNOHANG);
        if (ended == child || (ended < 0 && errno != EINTR)) {
            break;
        }
        if (Patience::Clock::now() >= deadline) {
            timedOut = true;
            ::kill(-child, SIGKILL);
            while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
            }
            break;
        }
        ::poll(nullptr, 0, 1); // it has closed its output, so its end is a matter of moments
    }
    return status;
}

} // namespace

std::string RealCommands::find(const std::string& program)
{
    // Ordinary users have no folder of administrators on their PATH; the daemon has.
    const char* const own = std::getenv("PATH");
    const std::string path =
        std::string(own != nullptr ? own : "") + ":/usr/local/sbin:/usr/sbin:/sbin:/usr/bin:/bin";
    for (std::size_t begin = 0; begin <= path.size();) {
        const std::size_t end = std::min(path.find(':', begin), path.size());
        std::string full = path.substr(begin, end - begin) + "/" + program;
        if (full.front() == '/' && end > begin && ::access(full.c_str(), X_OK) == 0) {
            return full;
        }
        begin = end + 1;
    }
    return {};
}

Ran RealCommands::run(const Words& words, const std::string& input)
{
    Ran ran;
    const std::string path = find(words.front());
    if (path.empty()) {
        return ran;
    }
    ran.found = true;

    std::array<int, 2> ends = {-1, -1};
    const UniqueFd given = input_of(input);
    if (!given || ::pipe2(ends.data(), O_CLOEXEC) < 0) {
        return ran;
    }
    const UniqueFd output(ends[0]);
    UniqueFd theirs(ends[1]);
    Words copy = words;
    Words settings = plain_environment();
    const std::vector<char*> arguments = pointers_to(copy);
    const std::vector<char*> environment = pointers_to(settings);

    const auto deadline = Patience::Clock::now() + patience_.share(kLongest);
    const pid_t child = ::fork();
    if (child < 0) {
        return ran;
    }
    if (child == 0) {
        become(path.c_str(), arguments.data(), environment.data(), given.get(), theirs.get());
    }
    ::setpgid(child, child); // whichever of the two comes first
    theirs.reset();
    ran.timedOut = !read_all(output.get(), ran.output, deadline);
    const int status = wait_for(child, ran.timedOut ? Patience::Clock::now() : deadline, ran.timedOut);
    ran.status = !ran.timedOut && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return ran;
}

} // namespace doctor
