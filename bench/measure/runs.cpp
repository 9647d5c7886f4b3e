#include <cerrno>
#include <sstream>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "measure/subject.hpp"

namespace {

class Run : public Subject
{
public:
    explicit Run(const std::string& command)
    {
        std::istringstream stream(command);
        for (std::string word; stream >> word;) {
            words_.push_back(word);
        }
        posix_spawn_file_actions_init(&silent_);
        posix_spawn_file_actions_addopen(&silent_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    ~Run() override { posix_spawn_file_actions_destroy(&silent_); }

    Clock::duration run() override
    {
        std::vector<char*> arguments;
        for (std::string& word : words_) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);

        pid_t child = -1;
        const Clock::time_point begin = Clock::now();
        if (posix_spawn(&child, arguments.front(), &silent_, nullptr, arguments.data(), environ) != 0) {
            throw MeasuringFailed("cannot start " + words_.front());
        }
        int status = -1;
        while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        const Clock::time_point end = Clock::now();
        if (status != 0) {
            throw MeasuringFailed("ended badly: " + words_.front());
        }
        return end - begin;
    }

private:
    std::vector<std::string> words_;
    posix_spawn_file_actions_t silent_{};
};

} // namespace

std::unique_ptr<Subject> make_run(const std::string& command)
{
    return std::make_unique<Run>(command);
}
