#pragma once

#include <csignal>

#include <sys/time.h>

namespace testing_support {

/** Interrupts every wait of a process of one thread, again and again as long as it lives. */
class InterruptingSignals
{
public:
    InterruptingSignals()
    {
        struct sigaction noted = {};
        noted.sa_handler = [](int) {}; // without SA_RESTART
        ::sigaction(SIGALRM, &noted, &before_);
        constexpr timeval kPeriod = {0, 20'000};
        const itimerval often = {kPeriod, kPeriod};
        ::setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~InterruptingSignals()
    {
        const itimerval never = {};
        ::setitimer(ITIMER_REAL, &never, nullptr);
        ::sigaction(SIGALRM, &before_, nullptr);
    }
    InterruptingSignals(const InterruptingSignals&) = delete;
    InterruptingSignals& operator=(const InterruptingSignals&) = delete;

private:
    struct sigaction before_ = {};
};

} // namespace testing_support
