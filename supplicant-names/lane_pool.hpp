#pragma once

#include <memory>
#include <vector>

#include <systemd/sd-bus.h>

#include "lane.hpp"

/** Lanes for callers to come. Most callers come for a single call, one after the other. */
class LanePool
{
public:
    /**
     * @param bus borrowed; the connection that calls come in on, whose loop serves the lanes
     * @param list borrowed; learns from the answers
     */
    LanePool(sd_bus* bus, BssList& list) : bus_(bus), list_(list) {}

    LanePool(const LanePool&) = delete;
    LanePool& operator=(const LanePool&) = delete;

    /** A lane on which nothing is awaited. */
    std::unique_ptr<Lane> take();

    /** Takes a lane back, and closes it where somebody else could not have it. @param lane may be null */
    void give_back(std::unique_ptr<Lane> lane);

private:
    sd_bus* bus_;
    BssList& list_;
    std::vector<std::unique_ptr<Lane>> spare_;
};
