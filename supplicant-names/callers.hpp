#pragma once

#include <functional>
#include <map>
#include <string>

#include <systemd/sd-bus.h>

#include "bss_list.hpp"
#include "caller.hpp"
#include "lane_pool.hpp"
#include "supplicant.hpp"
#include "support/sd_bus_owners.hpp"

/** All who call one wpa_supplicant by its older name, from their first call until they leave the bus. */
class Callers
{
public:
    /**
     * @param bus borrowed; the connection that calls come in on
     * @param supplicant borrowed; whom calls go to
     */
    Callers(sd_bus* bus, Supplicant& supplicant) : bus_(bus), supplicant_(supplicant), lanes_(bus, list_) {}

    Callers(const Callers&) = delete;
    Callers& operator=(const Callers&) = delete;

    /**
     * Begins to take calls, whatever they are about.
     *
     * @return 0 or a positive number, or a negative errno
     */
    int listen();

    /** A search for the station's object is over. @param error as Supplicant::Located has it */
    void station_located(sd_bus_message* error);

private:
    static int received(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int spoken(sd_bus_message* signal, void* userdata, sd_bus_error* error);
    static int left(sd_bus_message* signal, void* userdata, sd_bus_error* error);

    sd_bus* bus_;
    Supplicant& supplicant_;
    BssList list_;
    LanePool lanes_;
    std::map<std::string, Caller, std::less<>> callers_; // by unique name
    SlotPtr filter_;
    SlotPtr leavingMatch_;
    SlotPtr speakingMatch_;
};
