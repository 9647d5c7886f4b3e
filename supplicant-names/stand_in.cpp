#include "stand_in.hpp"

StandIn::StandIn(sd_bus* bus, const std::string& supplicant)
    : bus_(bus), supplicant_(bus, supplicant), callers_(bus, supplicant_), name_(bus)
{
}

int StandIn::make(sd_event* event, const std::string& supplicant, std::unique_ptr<StandIn>& made)
{
    sd_bus* opened = nullptr;
    int result = sd_bus_open_system_with_description(&opened, "stand-in");
    if (result < 0) {
        return result;
    }
    made.reset(new StandIn(opened, supplicant));
    result = made->begin(event);
    if (result < 0) {
        made.reset();
    }
    return result;
}

int StandIn::begin(sd_event* event)
{
    int result = sd_bus_attach_event(bus_.get(), event, SD_EVENT_PRIORITY_NORMAL);
    if (result >= 0) {
        result = sd_bus_set_exit_on_disconnect(bus_.get(), 1);
    }
    if (result >= 0) {
        result = callers_.listen();
    }
    if (result >= 0) {
        result = name_.follow([this] { supplicant_.locate_station(); });
    }
    if (result >= 0) {
        // A wpa_supplicant that answers has asked for the older name before, if it ever does.
        result = supplicant_.follow([this](sd_bus_message* error) {
            name_.take();
            callers_.station_located(error);
        });
    }
    if (result >= 0) {
        supplicant_.locate_station();
    }
    return result;
}
