#pragma once

#include <functional>
#include <string>

#include <systemd/sd-bus.h>

#include "support/sd_bus_owners.hpp"

/** One wpa_supplicant, from its start to its end, and which of its objects is the station's. */
class Supplicant
{
public:
    /** What a search for the station's object came to. @param error borrowed; the answer that names none: an
     * error, or nonsense; null when it is found */
    using Located = std::function<void(sd_bus_message* error)>;

    /**
     * @param bus borrowed; the connection that calls come in on: what it signals is heard in order with them
     * @param name its unique name
     */
    Supplicant(sd_bus* bus, std::string name) : bus_(bus), name_(std::move(name)) {}

    Supplicant(const Supplicant&) = delete;
    Supplicant& operator=(const Supplicant&) = delete;

    /**
     * Begins to follow which interfaces it has.
     *
     * @param located called whenever a search is over
     * @return 0 or a positive number, or a negative errno
     */
    int follow(Located located);

    /** Its unique name. */
    const std::string& name() const { return name_; }

    /** The station's object; empty when it has to be searched for. */
    const std::string& station() const { return station_; }

    /**
     * Asks it for the station's object; `located` is called once it has answered. Since it does one thing
     * after the other, it has by then also done all that belongs to its start. Does nothing while a search is
     * on.
     */
    void locate_station();

private:
    static int interfaces_changed(sd_bus_message* signal, void* userdata, sd_bus_error* error);
    static int interface_answered(sd_bus_message* answer, void* userdata, sd_bus_error* error);

    int follow_interfaces(SlotPtr& slot, const char* member);
    sd_bus_message* take_station(sd_bus_message* answer);

    sd_bus* bus_;
    std::string name_;
    Located located_;
    std::string station_;
    SlotPtr addedMatch_;
    SlotPtr removedMatch_;
    SlotPtr search_; // while a search is on
};
