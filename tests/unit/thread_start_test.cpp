#include "utils/thread_start.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>

#include <dlfcn.h>
#include <pthread.h>
#include <syslog.h>

namespace {

bool threadsAreUsedUp = false;

} // namespace

/** Stands before the C library's, which the C++ library calls. */
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                              void* argument)
{
    if (threadsAreUsedUp) {
        return EAGAIN;
    }
    static const auto kReal = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return kReal(thread, attributes, run, argument);
}

namespace {

TEST(ThreadStart, AThreadGetsItsArgumentsAndRuns)
{
    int sum = 0;
    std::thread thread = utils_start_thread([&sum](int first, int second) { sum = first + second; }, 2, 3);
    thread.join();
    EXPECT_EQ(sum, 5);
}

TEST(ThreadStart, WhereThereIsNoThreadLeftTheProcessEndsWithALineAndStatus1)
{
    EXPECT_EXIT(
        {
            openlog("test", LOG_PERROR, LOG_USER);
            threadsAreUsedUp = true;
            utils_start_thread([] {}).join();
        },
        testing::ExitedWithCode(EXIT_FAILURE),
        "test: \\[Main\\] Failed to create a thread: -11, exiting \\.\\.\\.");
}

} // namespace
