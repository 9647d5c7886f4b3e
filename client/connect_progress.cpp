#include "connect_progress.hpp"

namespace client {

bool ConnectProgress::announced(const std::string& state)
{
    return take(state);
}

bool ConnectProgress::polled(const std::string& state)
{
    if (!begun_ && state == last_) {
        return false;
    }
    return take(state);
}

bool ConnectProgress::take(const std::string& state)
{
    const bool news = !begun_ || state != last_;
    begun_ = true;
    last_ = state;
    if (state == "completed") {
        phase_ = Phase::Joined;
    } else if (state == "failed") {
        phase_ = Phase::Refused;
    } else if (state == "off") {
        phase_ = Phase::Stopped; // not a station any more: somebody switched the radio or the mode
    } else {
        phase_ = Phase::Joining;
    }
    return news;
}

} // namespace client
