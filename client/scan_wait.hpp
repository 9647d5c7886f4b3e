#pragma once

#include "deadline.hpp"

namespace client {

/**
 * How long a scan is waited for. Nothing says when it is over: the daemon announces what was found, perhaps
 * in pieces, and nothing at all when that is what was known before.
 */
class ScanWait
{
public:
    /** The scan was asked for at `begun`, and nothing is waited for beyond `deadline`. */
    ScanWait(Deadline begun, Deadline deadline);

    /** A list was announced. */
    void announced(Deadline now);

    /** Whether a list was announced since the beginning. */
    bool has_announced() const { return announced_; }

    /** Whether there is nothing more to wait for. */
    bool is_over(Deadline now) const { return now >= end_; }

    /** Whether the scan is to be asked for once more, as nothing has been heard; true once. */
    bool is_due_again(Deadline now);

    /** When one of these answers changes by itself. */
    Deadline next() const;

private:
    Deadline deadline_;
    Deadline end_;
    Deadline again_;
    bool announced_ = false;
};

} // namespace client
