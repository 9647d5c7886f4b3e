#include "bus_call.hpp"

#include <cstdint>
#include <string>

#include "bus_names.hpp"

int call_with_text(sd_bus* bus, SlotPtr& slot, const char* destination, const char* path,
                   const char* interface, const char* member, const char* text,
                   sd_bus_message_handler_t answered, void* userdata)
{
    sd_bus_message* created = nullptr;
    int result = sd_bus_message_new_method_call(bus, &created, destination, path, interface, member);
    const MessagePtr call(created);
    if (result >= 0) {
        result = sd_bus_message_append_basic(created, 's', text);
    }
    if (result < 0) {
        return result;
    }
    sd_bus_slot* waiting = nullptr;
    result = sd_bus_call_async(bus, &waiting, created, answered, userdata, UINT64_MAX);
    slot.reset(waiting);
    return result;
}

int call_bus(sd_bus* bus, SlotPtr& slot, const char* member, const char* text,
             sd_bus_message_handler_t answered, void* userdata)
{
    return call_with_text(bus, slot, kBus, kBusPath, kBus, member, text, answered, userdata);
}

int follow_owners(sd_bus* bus, SlotPtr& slot, const char* rule, sd_bus_message_handler_t heard,
                  void* userdata)
{
    const std::string whole = std::string("type='signal',sender='") + kBus + "',path='" + kBusPath +
                              "',interface='" + kBus + "',member='NameOwnerChanged'," + rule;
    sd_bus_slot* match = nullptr;
    const int result = sd_bus_add_match_async(bus, &match, whole.c_str(), heard, nullptr, userdata);
    slot.reset(match);
    return result;
}
