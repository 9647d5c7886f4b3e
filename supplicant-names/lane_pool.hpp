#pragma once

#include <memory>
#include <vector>

#include <systemd/sd-event.h>

#include "lane.hpp"

/** Lanes for callers to come. Most callers come for a single call, one after the other. */
class LanePool
{
public:
    /**
     * @param event borrowed; the loop that serves the lanes
     * @param list borrowed; learns from the answers
     */
    LanePool(sd_event* event, BssList& list) : event_(event), list_(list) {}

    LanePool(const LanePool&) = delete;
    LanePool& operator=(const LanePool&) = delete;

    /** A lane on which nothing is awaited. */
    std::unique_ptr<Lane> take();

    /** Takes a lane back, and closes it where somebody else could not have it. @param lane may be null */
    void give_back(std::unique_ptr<Lane> lane);

private:
    sd_event* event_;
    BssList& list_;
    std::vector<std::unique_ptr<Lane>> spare_;
};
