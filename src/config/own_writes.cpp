#include "config/own_writes.hpp"

#include <algorithm>

void OwnWrites::remember(const std::string& value)
{
    unheard_.push_back(value);
    if (unheard_.size() > kMost) {
        unheard_.pop_front();
    }
}

bool OwnWrites::heard(const std::string& value)
{
    const auto found = std::ranges::find(unheard_, value);
    if (found == unheard_.end()) {
        return false;
    }
    unheard_.erase(unheard_.begin(), std::next(found));
    return !unheard_.empty();
}
