#include "callers.hpp"

#include "bus_call.hpp"

int Callers::listen()
{
    // Whoever leaves: a connection that loses its unique name.
    int result = follow_owners(bus_, leavingMatch_, "arg2=''", left, this);
    if (result >= 0) {
        sd_bus_slot* slot = nullptr;
        result = sd_bus_match_signal_async(bus_, &slot, supplicant_.name().c_str(), nullptr, nullptr, nullptr,
                                           spoken, nullptr, this);
        speakingMatch_.reset(slot);
    }
    if (result >= 0) {
        sd_bus_slot* slot = nullptr;
        result = sd_bus_add_filter(bus_, &slot, received, this);
        filter_.reset(slot);
    }
    return result;
}

int Callers::received(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<Callers*>(userdata);
    const char* sender = sd_bus_message_get_sender(message);
    if (sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0 || sender == nullptr) {
        return 0;
    }
    auto caller = self->callers_.find(sender);
    if (caller == self->callers_.end()) {
        caller = self->callers_
                     .try_emplace(sender, self->bus_, sender, self->supplicant_, self->lanes_, self->list_)
                     .first;
    }
    caller->second.take(message);
    return 1;
}

int Callers::spoken(sd_bus_message*, void* userdata, sd_bus_error*)
{
    for (auto& [name, caller] : static_cast<Callers*>(userdata)->callers_) {
        caller.forget_answers();
    }
    return 0;
}

int Callers::left(sd_bus_message* signal, void* userdata, sd_bus_error*)
{
    const char* name = nullptr;
    auto& callers = static_cast<Callers*>(userdata)->callers_;
    if (sd_bus_message_read_basic(signal, 's', static_cast<void*>(&name)) > 0) {
        if (const auto caller = callers.find(name); caller != callers.end()) {
            callers.erase(caller);
        }
    }
    return 0;
}

void Callers::station_located(sd_bus_message* error)
{
    for (auto& [name, caller] : callers_) {
        caller.station_located(error);
    }
}
