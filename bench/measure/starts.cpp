#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "measure/subject.hpp"
#include "support/unique_fd.hpp"

namespace {

constexpr int kPatienceMsec = 300'000;
constexpr std::string_view kReady = "READY=1";

class Start : public Subject
{
public:
    explicit Start(std::string program)
        : program_(std::move(program)),
          path_("/tmp/ready-" + std::to_string(getpid()) + "-" + std::to_string(++count)),
          notify_("NOTIFY_SOCKET=" + path_), socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path_.c_str());
        // Standard output is for our times, not for what the commands of the program print.
        posix_spawn_file_actions_init(&silent_);
        posix_spawn_file_actions_addopen(&silent_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        if (bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            throw MeasuringFailed("no socket for READY=1");
        }
    }
    ~Start() override
    {
        posix_spawn_file_actions_destroy(&silent_);
        unlink(path_.c_str());
    }

    Clock::duration run() override
    {
        std::vector<char*> environment = {notify_.data()};
        for (char** variable = environ; *variable != nullptr; ++variable) {
            if (!std::string_view(*variable).starts_with("NOTIFY_SOCKET=")) {
                environment.push_back(*variable);
            }
        }
        environment.push_back(nullptr);
        const std::array<char*, 2> arguments = {program_.data(), nullptr};

        pid_t child = -1;
        const Clock::time_point begin = Clock::now();
        if (posix_spawn(&child, program_.c_str(), &silent_, nullptr, arguments.data(), environment.data()) !=
            0) {
            throw MeasuringFailed("cannot start " + program_);
        }
        const bool ready = wait_until_ready();
        const Clock::time_point end = Clock::now();

        kill(child, SIGTERM);
        while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
        }
        if (!ready) {
            throw MeasuringFailed("never ready: " + program_);
        }
        return end - begin;
    }

private:
    bool wait_until_ready() const
    {
        pollfd arrival = {.fd = socket_.get(), .events = POLLIN, .revents = 0};
        std::array<char, 256> text{};
        if (poll(&arrival, 1, kPatienceMsec) != 1) {
            return false;
        }
        const ssize_t size = read(socket_.get(), text.data(), text.size());
        return size > 0 && std::string_view(text.data(), static_cast<size_t>(size)) == kReady;
    }

    inline static int count = 0;
    std::string program_;
    std::string path_;
    std::string notify_;
    UniqueFd socket_;
    posix_spawn_file_actions_t silent_{};
};

} // namespace

std::unique_ptr<Subject> make_start(const std::string& program)
{
    return std::make_unique<Start>(program);
}
