#include "supplicant_watch.hpp"

#include <utility>

#include <syslog.h>

#include "bus_call.hpp"
#include "bus_names.hpp"

int SupplicantWatch::begin(std::function<void()> known, Changed changed)
{
    known_ = std::move(known);
    changed_ = std::move(changed);
    // The rule first: the bus handles them in order, so nothing falls between it and the question.
    const std::string rule = std::string("arg0='") + kNewerName + "'";
    const int result = follow_owners(bus_, match_, rule.c_str(), owner_changed, this);
    return result < 0 ? result : call_bus(bus_, call_, "GetNameOwner", kNewerName, name_owner_answered, this);
}

void SupplicantWatch::set_owner(const char* owner)
{
    if (owner_ == owner) {
        return;
    }
    owner_ = owner;
    if (owner_.empty()) {
        syslog(LOG_INFO, "[Names] wpa_supplicant has gone");
    } else {
        syslog(LOG_INFO, "[Names] wpa_supplicant is there: %s", owner);
    }
    changed_(owner_);
}

int SupplicantWatch::name_owner_answered(sd_bus_message* answer, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<SupplicantWatch*>(userdata);
    const char* owner = "";
    if (sd_bus_message_is_method_error(answer, nullptr) <= 0) {
        sd_bus_message_read_basic(answer, 's', static_cast<void*>(&owner));
    }
    self->set_owner(owner);
    self->known_();
    return 0;
}

int SupplicantWatch::owner_changed(sd_bus_message* signal, void* userdata, sd_bus_error*)
{
    const char* name = nullptr;
    const char* before = nullptr;
    const char* owner = nullptr;
    if (sd_bus_message_read(signal, "sss", &name, &before, &owner) >= 0) {
        static_cast<SupplicantWatch*>(userdata)->set_owner(owner);
    }
    return 0;
}
