#include "interrupts.hpp"

#include <sys/signalfd.h>
#include <unistd.h>

#include "support/signal_set.hpp"

namespace client {

Interrupts::Interrupts()
{
    sigset_t held = signal_set({});
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before = {};
        ::sigaction(number, nullptr, &before);
        if (before.sa_handler != SIG_IGN) {
            sigaddset(&held, number);
        }
    }
    fd_ = UniqueFd(::signalfd(-1, &held, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd_) {
        held = signal_set({}); // better ended without a word than not at all
    }
    ::sigprocmask(SIG_BLOCK, &held, &maskBefore_);
}

Interrupts::~Interrupts()
{
    ::sigprocmask(SIG_SETMASK, &maskBefore_, nullptr);
}

int Interrupts::take() const
{
    signalfd_siginfo info{};
    return ::read(fd_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)
               ? static_cast<int>(info.ssi_signo)
               : 0;
}

} // namespace client
