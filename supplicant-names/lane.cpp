#include "lane.hpp"

#include <cerrno>
#include <cstdint>
#include <iterator>

#include "hand_back.hpp"
#include "message_copy.hpp"

namespace {

/** How long an answer is waited for: for ever, since a caller's patience is its own affair. */
constexpr uint64_t kForEver = UINT64_MAX;

} // namespace

int Lane::connect()
{
    sd_bus* opened = nullptr;
    int result = sd_bus_open_system_with_description(&opened, "lane");
    bus_.reset(opened);
    if (result >= 0) {
        result = sd_bus_attach_event(opened, event_, SD_EVENT_PRIORITY_NORMAL);
    }
    if (result < 0) {
        bus_.reset();
    }
    return result;
}

int Lane::open()
{
    if (bus_ && sd_bus_is_open(bus_.get()) > 0) {
        return 0;
    }
    // Those who wait on a connection that has broken are just being told.
    return awaited_.empty() ? connect() : -ENOTCONN;
}

int Lane::hand_on(sd_bus_message* call, const char* destination, const char* path)
{
    MessagePtr handed;
    int result = open();
    if (result >= 0) {
        result = make_handed_call(bus_.get(), call, destination, path, handed);
    }
    if (result < 0) {
        return result;
    }
    if (sd_bus_message_get_expect_reply(call) <= 0) {
        return sd_bus_send(bus_.get(), handed.get(), nullptr);
    }
    Awaited& awaited = awaited_.emplace_back();
    awaited.lane = this;
    awaited.call.reset(sd_bus_message_ref(call));
    awaited.self = std::prev(awaited_.end());
    sd_bus_slot* slot = nullptr;
    result = sd_bus_call_async(bus_.get(), &slot, handed.get(), answered, &awaited, kForEver);
    awaited.slot.reset(slot);
    if (result < 0) {
        awaited_.pop_back();
    }
    return result;
}

bool Lane::idle() const
{
    return awaited_.empty() && bus_ && sd_bus_is_open(bus_.get()) > 0;
}

int Lane::answered(sd_bus_message* answer, void* userdata, sd_bus_error*)
{
    auto* awaited = static_cast<Awaited*>(userdata);
    hand_back(awaited->call.get(), answer);
    awaited->lane->list_.learn(awaited->call.get(), answer);
    awaited->lane->awaited_.erase(awaited->self);
    return 0;
}
