#include "core/main_loop.hpp"

#include <cerrno>
#include <utility>

#include <sys/epoll.h>
#include <sys/eventfd.h>

MainLoopQueue::MainLoopQueue()
    : wakeUp_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE)), openError_(wakeUp_ ? 0 : -errno)
{
}

int MainLoopQueue::attach(sd_event* event)
{
    if (!wakeUp_) {
        return openError_;
    }
    const auto wokenUp = [](sd_event_source*, int fd, uint32_t, void* userdata) {
        eventfd_t count = 0;
        eventfd_read(fd, &count);
        static_cast<MainLoopQueue*>(userdata)->run_next();
        return 0;
    };
    sd_event_source* source = nullptr;
    const int result = sd_event_add_io(event, &source, wakeUp_.get(), EPOLLIN, wokenUp, this);
    source_.reset(source);
    return result;
}

void MainLoopQueue::detach()
{
    source_.reset();
    const std::lock_guard lock(mutex_);
    posted_.clear();
}

void MainLoopQueue::post(Work work)
{
    if (std::this_thread::get_id() == loopThread_) {
        work();
        return;
    }
    const std::lock_guard lock(mutex_);
    posted_.push_back(std::move(work));
    eventfd_write(wakeUp_.get(), 1);
}

void MainLoopQueue::run_next()
{
    Work work;
    {
        const std::lock_guard lock(mutex_);
        if (posted_.empty()) {
            return;
        }
        work = std::move(posted_.front());
        posted_.pop_front();
    }
    work();
}
