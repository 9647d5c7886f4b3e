#include "scan_wait.hpp"

#include <algorithm>
#include <chrono>

namespace client {

namespace {

using std::chrono::milliseconds;

/** A scan takes two to four seconds. One that found nothing new is not announced at all. */
constexpr milliseconds kLongestScan{8000};
/** A station that is still starting up does not scan, and the daemon does not say so: then it is asked once
 * more. */
constexpr milliseconds kAskAgain{3000};
/** The list may be announced in pieces, one soon after the other. */
constexpr milliseconds kQuiet{300};

} // namespace

ScanWait::ScanWait(Deadline begun, Deadline deadline)
    : deadline_(deadline), end_(std::min(deadline, begun + kLongestScan)), again_(begun + kAskAgain)
{
}

void ScanWait::announced(Deadline now)
{
    announced_ = true;
    again_ = kNever;
    end_ = std::min(deadline_, now + kQuiet);
}

bool ScanWait::is_due_again(Deadline now)
{
    if (now < again_) {
        return false;
    }
    again_ = kNever;
    return true;
}

Deadline ScanWait::next() const
{
    return std::min(end_, again_);
}

} // namespace client
