#pragma once

#include <memory>
#include <string>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include "callers.hpp"
#include "older_name.hpp"
#include "supplicant.hpp"
#include "support/sd_bus_owners.hpp"

/**
 * What stands in for one wpa_supplicant: a connection to the bus that owns the older name and takes calls for
 * as long as that wpa_supplicant is there, and goes with it.
 *
 * So the older name has another owner when wpa_supplicant is another process, which is how callers see that
 * it is; and whoever still waits for an answer is told by the bus itself that there will be none.
 */
class StandIn
{
public:
    /**
     * Connects to the bus, and begins.
     *
     * @param event borrowed; the loop. It ends when the connection is lost
     * @param supplicant the unique name of wpa_supplicant
     * @param made holds it afterwards, or nothing
     * @return 0 or a positive number, or a negative errno
     */
    static int make(sd_event* event, const std::string& supplicant, std::unique_ptr<StandIn>& made);

    StandIn(const StandIn&) = delete;
    StandIn& operator=(const StandIn&) = delete;

private:
    StandIn(sd_bus* bus, const std::string& supplicant);

    int begin(sd_event* event);

    std::unique_ptr<sd_bus, ReleaseWith<sd_bus_close_unref>> bus_; // not flushed: that would wait
    Supplicant supplicant_;
    Callers callers_;
    OlderName name_;
};
