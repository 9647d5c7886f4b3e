#include "older_name.hpp"

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>

#include <syslog.h>

#include "bus_call.hpp"
#include "bus_names.hpp"

namespace {

/** What the bus answers to the one who owns the name from now on. */
constexpr uint32_t kPrimaryOwner = 1;

/** ... and to the one who owns it already. */
constexpr uint32_t kAlreadyOwner = 4;

/** When a refusal is asked about again: a bus that has just got its policy may not have read it yet. */
constexpr uint64_t kRetryUsec = 2'000'000;

} // namespace

int OlderName::follow(std::function<void()> free)
{
    free_ = std::move(free);
    const std::string rule = std::string("arg0='") + kOlderName + "'";
    return follow_owners(bus_, match_, rule.c_str(), owner_changed, this);
}

void OlderName::take()
{
    if (std::exchange(wanted_, true)) {
        return;
    }
    sd_bus_slot* slot = nullptr;
    const int result = sd_bus_request_name_async(bus_, &slot, kOlderName, 0, taken, this);
    taking_.reset(slot);
    if (result < 0) {
        syslog(LOG_ERR, "[Names] Failed to ask for %s: %d", kOlderName, result);
    }
}

int OlderName::taken(sd_bus_message* answer, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<OlderName*>(userdata);
    self->taking_.reset();
    uint32_t outcome = 0;
    if (sd_bus_message_is_method_error(answer, nullptr) > 0) {
        self->complain(sd_bus_message_get_error(answer)->message);
        self->wanted_ = false;
        self->try_later();
    } else if (sd_bus_message_read_basic(answer, 'u', &outcome) > 0 &&
               (outcome == kPrimaryOwner || outcome == kAlreadyOwner)) {
        self->complained_ = false;
        syslog(LOG_INFO, "[Names] Standing in for %s", kOlderName);
    } else {
        self->wanted_ = false;
        syslog(LOG_INFO, "[Names] %s has an owner, stepping aside", kOlderName);
    }
    return 0;
}

void OlderName::complain(const char* text)
{
    // Once: it is tried again for as long as it takes.
    if (!std::exchange(complained_, true)) {
        syslog(LOG_ERR, "[Names] Failed to own %s: %s", kOlderName, text != nullptr ? text : "");
    }
}

void OlderName::try_later()
{
    sd_event_source* source = nullptr;
    sd_event_add_time_relative(sd_bus_get_event(bus_), &source, CLOCK_MONOTONIC, kRetryUsec, 0, retry, this);
    retry_.reset(source);
}

int OlderName::retry(sd_event_source*, uint64_t, void* userdata)
{
    auto* self = static_cast<OlderName*>(userdata);
    self->retry_.reset();
    self->free_();
    return 0;
}

int OlderName::owner_changed(sd_bus_message* signal, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<OlderName*>(userdata);
    const char* name = nullptr;
    const char* before = nullptr;
    const char* owner = nullptr;
    if (sd_bus_message_read(signal, "sss", &name, &before, &owner) < 0 || self->wanted_) {
        return 0;
    }
    if (std::string_view(owner).empty()) {
        self->free_();
    }
    return 0;
}
