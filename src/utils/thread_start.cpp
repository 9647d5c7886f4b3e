#include "utils/thread_start.hpp"

#include <cstdlib>

#include <syslog.h>
#include <unistd.h>

void utils_end_without_thread(int error)
{
    syslog(LOG_ERR, "[Main] Failed to create a thread: %d, exiting ...", error);
    // At once: other threads may be at work, and an exception does not pass through the loop's library.
    _exit(EXIT_FAILURE);
}
