#include "lane_pool.hpp"

#include <utility>

namespace {

constexpr size_t kMostSpare = 4;

} // namespace

std::unique_ptr<Lane> LanePool::take()
{
    if (spare_.empty()) {
        return std::make_unique<Lane>(sd_bus_get_event(bus_), list_);
    }
    std::unique_ptr<Lane> lane = std::move(spare_.back());
    spare_.pop_back();
    return lane;
}

void LanePool::give_back(std::unique_ptr<Lane> lane)
{
    if (lane && lane->idle() && spare_.size() < kMostSpare) {
        spare_.push_back(std::move(lane));
    }
}
