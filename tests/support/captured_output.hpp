#pragma once

#include <array>
#include <cstdio>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/unique_fd.hpp"

namespace testing_support {

/** While this lives, standard output and standard error are kept, in the order in which they were written. */
class CapturedOutput
{
public:
    CapturedOutput()
    {
        std::fflush(stdout);
        for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO}) {
            ::dup2(kept_.get(), descriptor);
        }
    }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;
    ~CapturedOutput()
    {
        std::fflush(stdout);
        ::dup2(output_.get(), STDOUT_FILENO);
        ::dup2(error_.get(), STDERR_FILENO);
    }

    /** What has been written so far. */
    std::string text() const
    {
        std::fflush(stdout);
        std::string text;
        std::array<char, 1024> part{};
        for (ssize_t count = 0;
             (count = ::pread(kept_.get(), part.data(), part.size(), static_cast<off_t>(text.size()))) > 0;) {
            text.append(part.data(), static_cast<std::size_t>(count));
        }
        return text;
    }

private:
    UniqueFd kept_{::memfd_create("output", MFD_CLOEXEC)};
    UniqueFd output_{::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)};
    UniqueFd error_{::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)};
};

} // namespace testing_support
