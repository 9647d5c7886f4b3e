#pragma once

#include <functional>
#include <string>

#include <systemd/sd-bus.h>

#include "support/sd_bus_owners.hpp"

/** Who wpa_supplicant is at present, and which of its objects is the station's. */
class Supplicant
{
public:
    /** What a search for the station's object came to. @param error borrowed; the answer that names none:
     * an error, or nonsense; null when it is found */
    using Located = std::function<void(sd_bus_message* error)>;

    /** @param bus borrowed; the connection that calls come in on */
    explicit Supplicant(sd_bus* bus) : bus_(bus) {}

    Supplicant(const Supplicant&) = delete;
    Supplicant& operator=(const Supplicant&) = delete;

    /**
     * Begins to follow it.
     *
     * @param known called once, when it is known whether it is there
     * @param changed called whenever it has come, gone, or another one has taken its place
     * @param located called whenever a search is over
     * @return 0 or a positive number, or a negative errno
     */
    int follow(std::function<void()> known, std::function<void()> changed, Located located);

    /** Its unique name; empty when it is not there. */
    const std::string& owner() const { return owner_; }

    /** The station's object; empty when it has to be searched for. */
    const std::string& station() const { return station_; }

    /**
     * Asks it for the station's object; `located` is called once it has answered. Since it does one thing
     * after the other, it has by then also done all that belongs to its start. Does nothing while a search is
     * on, and when it is not there.
     */
    void locate_station();

private:
    static int name_owner_answered(sd_bus_message* answer, void* userdata, sd_bus_error* error);
    static int owner_changed(sd_bus_message* signal, void* userdata, sd_bus_error* error);
    static int interfaces_changed(sd_bus_message* signal, void* userdata, sd_bus_error* error);
    static int interface_answered(sd_bus_message* answer, void* userdata, sd_bus_error* error);

    int follow_interfaces(SlotPtr& slot, const char* member);
    void set_owner(const char* owner);
    sd_bus_message* take_station(sd_bus_message* answer);

    sd_bus* bus_;
    std::function<void()> known_;
    std::function<void()> changed_;
    Located located_;
    std::string owner_;
    std::string station_;
    SlotPtr ownerMatch_;
    SlotPtr addedMatch_;
    SlotPtr removedMatch_;
    SlotPtr ownerCall_;
    SlotPtr search_; // while a search is on
};
