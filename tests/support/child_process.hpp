#pragma once

#include <cerrno>
#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testing_support {

/** A program that runs beside the test and never outlives it. */
class ChildProcess
{
public:
    /** `prepare` runs in the child before the program starts. */
    explicit ChildProcess(std::vector<std::string> command, const std::function<void()>& prepare = {})
    {
        std::vector<char*> arguments;
        for (std::string& word : command) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        pid_ = ::fork();
        if (pid_ < 0) {
            throw std::runtime_error("fork failed");
        }
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (prepare) {
                prepare();
            }
            ::execvp(arguments[0], arguments.data());
            ::_exit(127);
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess() { kill_and_wait(); }

    /** Its number; -1 once it has been waited for. */
    pid_t pid() const { return pid_; }

    /** Sends a signal. Nothing happens once the program has been waited for. */
    void send(int signalNumber) const
    {
        if (pid_ > 0) {
            ::kill(pid_, signalNumber);
        }
    }

    /** Waits for the end: the exit status, or 128 + the signal that ended it; -1 when waited for already. */
    int wait()
    {
        if (pid_ <= 0) {
            return -1;
        }
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    void kill_and_wait()
    {
        send(SIGKILL);
        wait();
    }

private:
    pid_t pid_ = -1;
};

} // namespace testing_support
