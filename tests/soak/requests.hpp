#pragma once

#include <functional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <systemd/sd-bus.h>

#include "support/sd_bus_owners.hpp"

/** One kind of request: how often it is asked, what it says, and which answers to it are documented. */
struct Request
{
    /** How it is named in the table of results. */
    std::string label;

    /** How many of a thousand requests are of this kind. */
    int share;

    /** Makes the message; `number` counts the requests of the whole run, for values that alternate. */
    std::function<MessagePtr(sd_bus* bus, unsigned number)> make;

    /** The errors that may answer it, as "name: text"; any other is a failure of the run. */
    std::vector<std::string> refusals;

    /** Whether it may succeed. */
    bool maySucceed = true;
};

/** All kinds. Their shares add up to a thousand. */
const std::vector<Request>& all_requests();

/**
 * Deals out kinds of requests in random order, but of each thousand exactly as many of each kind as its share
 * says.
 */
class RequestDeck
{
public:
    /** The same seed gives the same order. */
    explicit RequestDeck(unsigned seed) : chance_(seed) {}

    /** The next kind: an index into all_requests(). */
    size_t draw();

private:
    std::mt19937 chance_;
    std::vector<size_t> cards_;
};
