#include "supplicant.hpp"

#include <utility>

#include <syslog.h>

#include "bus_call.hpp"
#include "bus_names.hpp"

namespace {

/** wpa_supplicant's word for an interface that it has not got. */
constexpr const char* kInterfaceUnknown = "fi.w1.wpa_supplicant1.InterfaceUnknown";

/** Whether who was asked has no such question: an object, interface or method that it does not know. */
bool says_that_it_can_not_be_asked(sd_bus_message* answer)
{
    return sd_bus_message_is_method_error(answer, SD_BUS_ERROR_UNKNOWN_METHOD) > 0 ||
           sd_bus_message_is_method_error(answer, SD_BUS_ERROR_UNKNOWN_OBJECT) > 0 ||
           sd_bus_message_is_method_error(answer, SD_BUS_ERROR_UNKNOWN_INTERFACE) > 0;
}

} // namespace

int Supplicant::follow(std::function<void()> known, std::function<void()> changed, Located located)
{
    known_ = std::move(known);
    changed_ = std::move(changed);
    located_ = std::move(located);

    // The rules first: the bus handles them in order, so nothing falls between them and the question.
    const std::string rule = std::string("arg0='") + kNewerName + "'";
    int result = follow_owners(bus_, ownerMatch_, rule.c_str(), owner_changed, this);
    if (result >= 0) {
        result = follow_interfaces(addedMatch_, "InterfaceAdded");
    }
    if (result >= 0) {
        result = follow_interfaces(removedMatch_, "InterfaceRemoved");
    }
    return result < 0 ? result
                      : call_bus(bus_, ownerCall_, "GetNameOwner", kNewerName, name_owner_answered, this);
}

int Supplicant::follow_interfaces(SlotPtr& slot, const char* member)
{
    sd_bus_slot* match = nullptr;
    const int result = sd_bus_match_signal_async(bus_, &match, kNewerName, kRootPath, kRootInterface, member,
                                                 interfaces_changed, nullptr, this);
    slot.reset(match);
    return result;
}

void Supplicant::locate_station()
{
    if (search_ || owner_.empty()) {
        return;
    }
    const int result = call_with_text(bus_, search_, owner_.c_str(), kRootPath, kRootInterface,
                                      "GetInterface", kStation, interface_answered, this);
    if (result < 0) {
        syslog(LOG_ERR, "[Names] Failed to ask wpa_supplicant for %s: %d", kStation, result);
    }
}

void Supplicant::set_owner(const char* owner)
{
    if (owner_ == owner) {
        return;
    }
    owner_ = owner;
    station_.clear();
    search_.reset();
    if (owner_.empty()) {
        syslog(LOG_INFO, "[Names] wpa_supplicant has gone");
    } else {
        syslog(LOG_INFO, "[Names] wpa_supplicant is there: %s", owner);
    }
    changed_();
}

int Supplicant::name_owner_answered(sd_bus_message* answer, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<Supplicant*>(userdata);
    const char* owner = "";
    if (sd_bus_message_is_method_error(answer, nullptr) <= 0) {
        sd_bus_message_read_basic(answer, 's', static_cast<void*>(&owner));
    }
    self->set_owner(owner);
    self->known_();
    return 0;
}

int Supplicant::owner_changed(sd_bus_message* signal, void* userdata, sd_bus_error*)
{
    const char* name = nullptr;
    const char* before = nullptr;
    const char* owner = nullptr;
    if (sd_bus_message_read(signal, "sss", &name, &before, &owner) >= 0) {
        static_cast<Supplicant*>(userdata)->set_owner(owner);
    }
    return 0;
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
