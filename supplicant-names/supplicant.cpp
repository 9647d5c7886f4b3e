#include "supplicant.hpp"

#include <utility>

#include <syslog.h>

#include "bus_call.hpp"
#include "bus_names.hpp"

namespace {

/** Whether who was asked has no such question: an object, interface or method that it does not know. */
bool says_that_it_can_not_be_asked(sd_bus_message* answer)
{
    return sd_bus_message_is_method_error(answer, SD_BUS_ERROR_UNKNOWN_METHOD) > 0 ||
           sd_bus_message_is_method_error(answer, SD_BUS_ERROR_UNKNOWN_OBJECT) > 0 ||
           sd_bus_message_is_method_error(answer, SD_BUS_ERROR_UNKNOWN_INTERFACE) > 0;
}

} // namespace

int Supplicant::follow(Located located)
{
    located_ = std::move(located);
    const int result = follow_interfaces(addedMatch_, "InterfaceAdded");
    return result < 0 ? result : follow_interfaces(removedMatch_, "InterfaceRemoved");
}

int Supplicant::follow_interfaces(SlotPtr& slot, const char* member)
{
    sd_bus_slot* match = nullptr;
    const int result = sd_bus_match_signal_async(bus_, &match, name_.c_str(), kRootPath, kRootInterface,
                                                 member, interfaces_changed, nullptr, this);
    slot.reset(match);
    return result;
}

void Supplicant::locate_station()
{
    if (search_) {
        return;
    }
    const int result = call_with_text(bus_, search_, name_.c_str(), kRootPath, kRootInterface, "GetInterface",
                                      kStation, interface_answered, this);
    if (result < 0) {
        syslog(LOG_ERR, "[Names] Failed to ask wpa_supplicant for %s: %d", kStation, result);
    }
}

int Supplicant::interfaces_changed(sd_bus_message*, void* userdata, sd_bus_error*)
{
    static_cast<Supplicant*>(userdata)->station_.clear();
    return 0;
}

sd_bus_message* Supplicant::take_station(sd_bus_message* answer)
{
    const char* path = kFirstObject;
    if (says_that_it_can_not_be_asked(answer)) {
        syslog(LOG_INFO, "[Names] wpa_supplicant can not be asked for %s", kStation);
    } else if (sd_bus_message_read_basic(answer, 'o', static_cast<void*>(&path)) <= 0) {
        return answer;
    }
    station_ = path;
    syslog(LOG_INFO, "[Names] %s is %s", kStation, path);
    return nullptr;
}

int Supplicant::interface_answered(sd_bus_message* answer, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<Supplicant*>(userdata);
    self->search_.reset();
    self->located_(self->take_station(answer));
    return 0;
}
