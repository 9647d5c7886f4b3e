#include "connector_state.hpp"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "support/bus_connection.hpp"

namespace DbusHelper {

namespace {

constexpr std::chrono::seconds kFirstRetryDelay(1);
constexpr std::chrono::seconds kLongestRetryDelay(30);

} // namespace

DbusConnector::State::State(sd_event* event, BusType type)
    : event_(sd_event_ref(event)), type_(type), retryDelay_(kFirstRetryDelay)
{
}

bool DbusConnector::State::is_open() const
{
    return !lost_ && bus_ != nullptr && sd_bus_is_open(bus_.get()) > 0;
}

int DbusConnector::State::open(Install mode)
{
    drop_connection();
    int r = open_bus(mode);
    for (auto listening = rules_.begin(); r >= 0 && listening != rules_.end(); ++listening) {
        r = install(*listening, mode);
    }
    if (r >= 0) {
        r = watch_connection(mode);
    }
    if (r < 0) {
        drop_connection();
        return r;
    }
    retry_.reset();
    return 0;
}

void DbusConnector::State::close()
{
    lost_ = false;
    retry_.reset();
    rules_.clear();
    drop_connection();
}

int DbusConnector::State::listen(const SignalRule& rule)
{
    if (!is_open() && !lost_) {
        return -ENOTCONN;
    }
    if (!rule.valid()) {
        return -EINVAL;
    }
    rules_.push_back({rule, nullptr});
    if (!is_open()) {
        return 0;
    }
    const int r = install(rules_.back(), Install::Waiting);
    if (r < 0) {
        rules_.pop_back();
    }
    return r;
}

int DbusConnector::State::install(Listening& listening, Install mode)
{
    listening.watch = std::make_unique<SignalWatch>(listening.rule, [this] { give_up_connection(); });
    return listening.watch->install(bus_.get(), mode);
}

int DbusConnector::State::open_bus(Install mode)
{
    if (event_ == nullptr) {
        return -EINVAL;
    }
    int r = type_ == BusType::User ? open_user_bus(bus_, LetIn::Unneeded)
                                   : open_system_bus(bus_, LetIn::Unneeded);
    if (r >= 0 && mode == Install::Waiting) {
        r = await_letting_in(bus_.get());
    }
    // The priority of everything else that such a loop serves: a flood of signals, which may come from
    // anybody, takes its turns with the others and keeps none of them waiting.
    return r < 0 ? r : sd_bus_attach_event(bus_.get(), event_.get(), SD_EVENT_PRIORITY_NORMAL);
}

int DbusConnector::State::watch_connection(Install mode)
{
    // A signal of sd-bus itself, which no bus daemon is asked for.
    constexpr const char* kMatch =
        "type='signal',sender='org.freedesktop.DBus.Local',"
        "path='/org/freedesktop/DBus/Local',interface='org.freedesktop.DBus.Local',"
        "member='Disconnected'";
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_add_match(bus_.get(), &slot, kMatch, on_disconnected, this);
    disconnected_.reset(slot);
    if (r < 0) {
        return r;
    }
    if (mode == Install::Waiting) {
        lost_ = false;
        retryDelay_ = kFirstRetryDelay;
        return 0;
    }
    // The bus daemon answers in order: its answer to this question shows that everything before went well.
    slot = nullptr;
    r = sd_bus_call_method_async(bus_.get(), &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus", "GetId", on_bus_answered, this, nullptr);
    probe_.reset(slot);
    return r;
}

void DbusConnector::State::drop_connection()
{
    for (auto& listening : rules_) {
        listening.watch.reset();
    }
    probe_.reset();
    disconnected_.reset();
    bus_.reset();
}

/**
 * Arms the timer that replaces the connection. The connection itself stays until then: this is called while
 * sd-bus is at work on it.
 */
void DbusConnector::State::give_up_connection()
{
    if (retry_ != nullptr) {
        return;
    }
    const auto delay = std::chrono::microseconds(retryDelay_);
    retryDelay_ = std::min(2 * retryDelay_, kLongestRetryDelay);
    sd_event_source* source = nullptr;
    const int r = sd_event_add_time_relative(event_.get(), &source, CLOCK_MONOTONIC,
                                             static_cast<std::uint64_t>(delay.count()), 0, on_retry, this);
    retry_.reset(source);
    lost_ = r >= 0;
}

int DbusConnector::State::on_disconnected(sd_bus_message*, void* userdata, sd_bus_error*)
{
    static_cast<State*>(userdata)->give_up_connection();
    return 0;
}

int DbusConnector::State::on_bus_answered(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto& state = *static_cast<State*>(userdata);
    if (sd_bus_message_is_method_error(message, nullptr) > 0) {
        state.give_up_connection();
    }
    if (state.retry_ != nullptr) {
        return 0; // given up: this is not the answer to everything before
    }
    state.lost_ = false;
    state.retryDelay_ = kFirstRetryDelay;
    return 0;
}

int DbusConnector::State::on_retry(sd_event_source*, std::uint64_t, void* userdata)
{
    auto& state = *static_cast<State*>(userdata);
    state.retry_.reset();
    if (state.open(Install::InBackground) < 0) {
        state.give_up_connection();
    }
    return 0;
}

} // namespace DbusHelper
