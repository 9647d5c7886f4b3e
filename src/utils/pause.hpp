#pragma once

#include <cerrno>
#include <ctime>

/** Sleeps for the given time; an interruption by a signal does not shorten it (nanosleep(2)). */
inline void pause_for(time_t seconds, long nanoseconds)
{
    timespec left = {.tv_sec = seconds, .tv_nsec = nanoseconds};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}
