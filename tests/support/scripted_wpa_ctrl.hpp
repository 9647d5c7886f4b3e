#pragma once

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <wpa_ctrl.h>

#include "listeners/control_request.hpp"

/**
 * Takes the place of hostapd's client library (wpa_ctrl.h), of asking questions over it, and of the two waits
 * around it, nanosleep and select. To be included by one file of a test program. What is sent to `peer`
 * arrives as events do.
 */
struct wpa_ctrl
{
    int fd = -1;
};

namespace testing_support {

class ScriptedWpaCtrl
{
public:
    /** Forgets everything; a new pair of sockets for the next connection. */
    static void reset()
    {
        close_sockets();
        if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) != 0) {
            std::abort();
        }
        connection.fd = pair[0];
        opens = true;
        attachAnswer = "OK\n";
        whileAttaching = nullptr;
        onOpen = nullptr;
        pendingErrors = false;
        failingReceives = 0;
        interruptedSelects = 0;
        emptySelects = 0;
        descriptor = pair[0];
        sleeps.clear();
        onSleep = nullptr;
        selectTimeouts.clear();
        const std::lock_guard lock(mutex);
        calls.clear();
    }

    /** An event, as hostapd would send it. */
    static void send(const std::string& event)
    {
        if (::send(pair[1], event.data(), event.size(), 0) < 0) {
            std::abort();
        }
    }

    /** Waits until so many waits have begun since the reset. Returns false when they have not in time. */
    static bool wait_for_selects(int count)
    {
        std::unique_lock lock(mutex);
        return selecting.wait_for(lock, std::chrono::seconds(20),
                                  [&] { return static_cast<int>(selectTimeouts.size()) >= count; });
    }

    static void note_select(const timeval& timeout)
    {
        const std::lock_guard lock(mutex);
        selectTimeouts.push_back(timeout);
        selecting.notify_all();
    }

    static void note(const std::string& call)
    {
        const std::lock_guard lock(mutex);
        calls.push_back(call);
    }

    /** The calls to the library in order, without those that every wake-up makes. */
    static std::vector<std::string> noted()
    {
        const std::lock_guard lock(mutex);
        return calls;
    }

    inline static wpa_ctrl connection;
    inline static std::atomic<bool> opens = true;          ///< whether a connection can be opened
    inline static std::string attachAnswer;                ///< to attaching; empty when there is none
    inline static std::atomic<bool> pendingErrors = false; ///< whether asking for pending events fails
    inline static std::atomic<int> failingReceives = 0;    ///< so many receives fail before one succeeds
    inline static std::atomic<int> interruptedSelects = 0; ///< so many waits are interrupted by a signal
    inline static std::atomic<int> emptySelects = 0;       ///< so many waits end with their time-out
    inline static std::atomic<int> descriptor = -1;        ///< what the library says its descriptor is
    inline static std::vector<timespec> sleeps;            ///< pauses of the main thread, which take no time
    inline static std::function<void()> onSleep;           ///< called at the end of each pause
    inline static std::function<void()> onOpen;            ///< called by each attempt to open a connection
    inline static std::function<void(const ControlWait&)> whileAttaching; ///< called before that answer
    inline static std::vector<timeval> selectTimeouts; ///< of the listener thread; look after its end

private:
    static void close_sockets()
    {
        for (int& end : pair) {
            if (end >= 0) {
                close(end);
            }
            end = -1;
        }
    }

    inline static int pair[2] = {-1, -1};
    inline static std::condition_variable selecting;
    inline static std::mutex mutex;
    inline static std::vector<std::string> calls;
};

} // namespace testing_support

int32_t control_request(wpa_ctrl*, const char* command, char* reply, size_t& length, const ControlWait& wait)
{
    using testing_support::ScriptedWpaCtrl;
    ScriptedWpaCtrl::note(command);
    if (ScriptedWpaCtrl::whileAttaching) {
        ScriptedWpaCtrl::whileAttaching(wait);
    }
    length = ScriptedWpaCtrl::attachAnswer.copy(reply, length);
    return length != 0 ? 0 : -2;
}

extern "C" {

wpa_ctrl* wpa_ctrl_open2(const char* path, const char* clientFolder)
{
    using testing_support::ScriptedWpaCtrl;
    ScriptedWpaCtrl::note(std::string("open ") + path + (clientFolder == nullptr ? "" : " elsewhere"));
    if (ScriptedWpaCtrl::onOpen) {
        ScriptedWpaCtrl::onOpen();
    }
    return ScriptedWpaCtrl::opens ? &ScriptedWpaCtrl::connection : nullptr;
}

void wpa_ctrl_close(wpa_ctrl*)
{
    testing_support::ScriptedWpaCtrl::note("close");
}

int wpa_ctrl_get_fd(wpa_ctrl*)
{
    return testing_support::ScriptedWpaCtrl::descriptor;
}

int wpa_ctrl_pending(wpa_ctrl* connection)
{
    if (testing_support::ScriptedWpaCtrl::pendingErrors) {
        return -1;
    }
    char byte = 0;
    return recv(connection->fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 ? 1 : 0;
}

int wpa_ctrl_recv(wpa_ctrl* connection, char* reply, size_t* length)
{
    using testing_support::ScriptedWpaCtrl;
    if (ScriptedWpaCtrl::failingReceives > 0) {
        --ScriptedWpaCtrl::failingReceives;
        return -1;
    }
    const ssize_t received = recv(connection->fd, reply, *length, MSG_DONTWAIT);
    if (received < 0) {
        return -1;
    }
    *length = static_cast<size_t>(received);
    return 0;
}

int nanosleep(const timespec* time, timespec*)
{
    testing_support::ScriptedWpaCtrl::sleeps.push_back(*time);
    if (testing_support::ScriptedWpaCtrl::onSleep) {
        testing_support::ScriptedWpaCtrl::onSleep();
    }
    return 0;
}

/** Waits far longer than asked to, so that only what the caller waits for, and no time-out, ends a wait. */
int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout)
{
    using testing_support::ScriptedWpaCtrl;
    ScriptedWpaCtrl::note_select(*timeout);
    if (ScriptedWpaCtrl::interruptedSelects > 0) {
        --ScriptedWpaCtrl::interruptedSelects;
        errno = EINTR;
        return -1;
    }
    if (ScriptedWpaCtrl::emptySelects > 0) {
        --ScriptedWpaCtrl::emptySelects;
        errno = 0;
        return 0;
    }
    const timespec aMinute = {.tv_sec = 60, .tv_nsec = 0};
    return pselect(count, readable, writable, exceptional, &aMinute, nullptr);
}

} // extern "C"
