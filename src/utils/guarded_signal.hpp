#pragma once

#include <mutex>
#include <vector>

#include <sigc++/sigc++.h>

/**
 * A signal of libsigc++ slots that one thread may emit while another connects to it, which sigc::signal does
 * not allow.
 *
 * The emission takes a snapshot of the slots under a lock and runs them outside of it, so a slot that takes
 * its time holds up nobody who connects, and a slot connected during an emission is first called by the next
 * one. Slots must not be bound to sigc::trackable objects.
 */
template <typename... Arguments>
class GuardedSignal
{
public:
    using Slot = sigc::slot<void, Arguments...>;

    void connect(const Slot& slot)
    {
        const std::lock_guard lock(mutex_);
        slots_.push_back(slot);
    }

    /** Calls the slots in the order in which they were connected, on the calling thread. */
    template <typename... Values>
    void emit(const Values&... values) const
    {
        for (const Slot& slot : snapshot()) {
            slot(values...);
        }
    }

private:
    std::vector<Slot> snapshot() const
    {
        const std::lock_guard lock(mutex_);
        return slots_;
    }

    mutable std::mutex mutex_;
    std::vector<Slot> slots_;
};
