#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

#include "support/unique_fd.hpp"

/**
 * Shell commands as system(3) and popen(3) run them ("/bin/sh -c", status as waitpid(2) gives it), except for
 * what a child of this program must not inherit: the blocked signal mask of a program that takes its signals
 * from a descriptor, ignored signals, and open descriptors (the control-socket library's are not
 * close-on-exec). And unlike system(3), running a command does not make this program deaf to SIGINT.
 */

/**
 * Runs a command line and waits for its end.
 *
 * @return 0 when the command ended with exit status 0; otherwise the raw wait status, for example 256 for
 * exit status 1 and 32512 (status 127) when there is no shell; -1 when no process could be created
 */
int shell_run(const std::string& command);

/** A command line whose standard output is read through a pipe. The destructor waits for the command's end.
 */
class ShellPipe
{
public:
    /** Starts the command. When that fails the object tests false and every read yields nothing. */
    explicit ShellPipe(const std::string& command);
    ~ShellPipe();
    ShellPipe(const ShellPipe&) = delete;
    ShellPipe& operator=(const ShellPipe&) = delete;

    explicit operator bool() const { return static_cast<bool>(output_); }

    /** Reads until end of file, at most `limit` bytes. */
    std::string read(size_t limit);

    /**
     * Reads up to and including the first newline, at most `limit` bytes.
     *
     * @return true when at least one byte was read
     */
    bool read_line(std::string& line, size_t limit);

private:
    UniqueFd output_;
    pid_t child_ = -1;
};

/** The text up to the first NUL byte: what a C string function would see of what a command printed. */
std::string_view text_of(const std::string& bytes);
