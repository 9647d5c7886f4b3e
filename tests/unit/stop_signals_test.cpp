#include "core/stop_signals.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <future>
#include <thread>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "support/event_loop.hpp"

namespace {

/** What is not to be had: signalfd(2), with this error; the eventfd(2) with this number, counted from 1. */
int signalfdError = 0;
int missingEventfd = 0;

template <typename Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

int signalfd(int fd, const sigset_t* mask, int flags) noexcept
{
    if (signalfdError != 0) {
        errno = signalfdError;
        return -1;
    }
    return next<int(int, const sigset_t*, int)>("signalfd")(fd, mask, flags);
}

int eventfd(unsigned int count, int flags) noexcept
{
    if (missingEventfd > 0 && --missingEventfd == 0) {
        errno = EMFILE;
        return -1;
    }
    return next<int(unsigned int, int)>("eventfd")(count, flags);
}

/** What ends a process that does not end in time: here its thread only, since status 0 stands for success. */
void _exit(int)
{
    pthread_exit(nullptr);
}
}

TEST(StopSignals, EitherSignalIsACallOnAnotherThread)
{
    for (const int number : {SIGTERM, SIGINT}) {
        std::promise<std::thread::id> called;
        StopSignals signals;
        ASSERT_EQ(signals.watch([&called] { called.set_value(std::this_thread::get_id()); }), 0);
        ::kill(::getpid(), number);
        auto caller = called.get_future();
        ASSERT_EQ(caller.wait_for(testing_support::kPatience), std::future_status::ready);
        EXPECT_NE(caller.get(), std::this_thread::get_id());
    }
}

TEST(StopSignals, CannotBeWatchedWithoutEveryDescriptor)
{
    signalfdError = ENFILE;
    EXPECT_EQ(StopSignals().watch([] {}), -ENFILE);
    signalfdError = 0;
    for (const int missing : {1, 2}) {
        missingEventfd = missing;
        EXPECT_EQ(StopSignals().watch([] {}), -EMFILE) << missing;
    }
    EXPECT_EQ(StopSignals().watch([] {}), 0);
}
