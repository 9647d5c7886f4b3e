#include "read_ahead.hpp"

#include <algorithm>
#include <ctime>
#include <string_view>

#include <systemd/sd-event.h>

#include "bus_call.hpp"
#include "bus_names.hpp"
#include "hand_back.hpp"

namespace {

/** How many are asked for ahead, and how few of them are left when more are. */
constexpr size_t kMost = 16;
constexpr size_t kFew = 8;

/** How long an answer may wait for its call, in microseconds. */
constexpr uint64_t kFreshUsec = 5'000'000;

/** Whether it asks for everything about an access point. */
bool asks_for_a_bss(sd_bus_message* call)
{
    const char* interface = nullptr;
    return sd_bus_message_is_method_call(call, kProperties, "GetAll") > 0 &&
           sd_bus_message_has_signature(call, "s") > 0 && sd_bus_message_get_expect_reply(call) > 0 &&
           sd_bus_message_rewind(call, 1) >= 0 &&
           sd_bus_message_read_basic(call, 's', static_cast<void*>(&interface)) > 0 &&
           std::string_view(interface) == kBssInterface;
}

uint64_t now_of(sd_bus_message* message)
{
    uint64_t now = 0;
    sd_event_now(sd_bus_get_event(sd_bus_message_get_bus(message)), CLOCK_MONOTONIC, &now);
    return now;
}

} // namespace

bool ReadAhead::take(sd_bus_message* call)
{
    if (!asks_for_a_bss(call)) {
        forget();
        return false;
    }
    const auto found = asked_.find(std::string_view(sd_bus_message_get_path(call)));
    if (found == asked_.end() || found->second.call) {
        return false;
    }
    Asked& asked = found->second;
    if (now_of(call) - asked.since > kFreshUsec) {
        forget();
        return false;
    }
    if (!asked.answer) {
        asked.call.reset(sd_bus_message_ref(call));
        return true;
    }
    hand_back(call, asked.answer.get());
    asked_.erase(found);
    return true;
}

void ReadAhead::go_on(sd_bus* bus, const char* destination, sd_bus_message* call)
{
    if (!asks_for_a_bss(call)) {
        return;
    }
    const std::optional<size_t> position = list_.position(sd_bus_message_get_path(call));
    const bool inOrder = position && (position == expected_ || *position == 0);
    if (!inOrder) {
        forget();
    }
    expected_ = position ? std::optional(*position + 1) : std::nullopt;
    if (!inOrder || (asked_.size() > kFew && askedUpTo_ > *expected_)) {
        return;
    }
    askedUpTo_ = std::max(askedUpTo_, *expected_);
    const size_t end = std::min(list_.size(), *expected_ + kMost);
    while (askedUpTo_ < end && ask(bus, destination, list_.at(askedUpTo_))) {
        ++askedUpTo_;
    }
}

bool ReadAhead::ask(sd_bus* bus, const char* destination, const std::string& path)
{
    Asked& asked = asked_[path];
    if (asked.slot || asked.answer) {
        return true;
    }
    asked.ahead = this;
    sd_event_now(sd_bus_get_event(bus), CLOCK_MONOTONIC, &asked.since);
    const char* what = kBssInterface;
    if (call_with_text(bus, asked.slot, destination, path.c_str(), kProperties, "GetAll", what, answered,
                       &asked) < 0) {
        asked_.erase(path);
        return false;
    }
    return true;
}

void ReadAhead::forget()
{
    std::erase_if(asked_, [](const auto& entry) { return !entry.second.call; });
    expected_.reset();
    askedUpTo_ = 0;
}

bool ReadAhead::idle() const
{
    return std::none_of(asked_.begin(), asked_.end(),
                        [](const auto& entry) { return entry.second.slot != nullptr; });
}

int ReadAhead::answered(sd_bus_message* answer, void* userdata, sd_bus_error*)
{
    auto* asked = static_cast<Asked*>(userdata);
    ReadAhead* self = asked->ahead;
    asked->slot.reset();
    if (!asked->call && sd_bus_message_is_method_error(answer, nullptr) <= 0) {
        asked->answer.reset(sd_bus_message_ref(answer));
        return 0;
    }
    if (asked->call) {
        hand_back(asked->call.get(), answer);
    }
    std::erase_if(self->asked_, [asked](const auto& entry) { return &entry.second == asked; });
    return 0;
}
