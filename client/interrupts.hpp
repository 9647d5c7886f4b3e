#pragma once

#include <csignal>

#include "support/unique_fd.hpp"

namespace client {

/**
 * While this lives, the signals by which people end a program (SIGINT, SIGTERM, SIGHUP) do not, but make a
 * descriptor readable, so that something can be said or put in order first. What was ignored before stays so.
 */
class Interrupts
{
public:
    Interrupts();
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;
    ~Interrupts();

    /** Readable when a signal has come; -1 when the system had no descriptor left. */
    int fd() const { return fd_.get(); }

    /** The signal that has come, or 0. */
    int take() const;

private:
    sigset_t maskBefore_{};
    UniqueFd fd_;
};

} // namespace client
