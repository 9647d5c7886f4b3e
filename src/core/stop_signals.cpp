#include "core/stop_signals.hpp"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <utility>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "support/signal_set.hpp"
#include "utils/thread_start.hpp"

namespace {

using namespace std::chrono_literals;

constexpr auto kTimeToEnd = 800ms;

} // namespace

StopSignals::StopSignals()
{
    const sigset_t signals = signal_set({SIGTERM, SIGINT});
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    arrived_.reset(signalfd(-1, &signals, SFD_CLOEXEC));
    if (!arrived_) {
        error_ = -errno;
    }
}

StopSignals::~StopSignals()
{
    ended_.set();
    if (thread_.joinable()) {
        thread_.join();
    }
}

int StopSignals::watch(std::function<void()> stop)
{
    if (ending_.fd() < 0 || ended_.fd() < 0 || !arrived_) {
        return error_ < 0 ? error_ : -EMFILE;
    }
    stop_ = std::move(stop);
    thread_ = utils_start_thread(&StopSignals::wait_for_end, this);
    return 0;
}

void StopSignals::end_in_time()
{
    ending_.set();
}

void StopSignals::wait_for_end()
{
    std::array<pollfd, 3> waits = {{{.fd = arrived_.get(), .events = POLLIN, .revents = 0},
                                    {.fd = ending_.fd(), .events = POLLIN, .revents = 0},
                                    {.fd = ended_.fd(), .events = POLLIN, .revents = 0}}};
    while (poll(waits.data(), waits.size(), -1) < 0 && errno == EINTR) {
    }
    if (ended_.is_set()) {
        return;
    }
    if (!ending_.is_set()) {
        stop_();
    }
    if (!ended_.wait_for(kTimeToEnd)) {
        _exit(EXIT_SUCCESS);
    }
}
