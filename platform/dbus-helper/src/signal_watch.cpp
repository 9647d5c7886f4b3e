#include "signal_watch.hpp"

#include <cerrno>
#include <string_view>
#include <utility>

namespace DbusHelper {

namespace {

constexpr const char* kBusName = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";

bool is_from_bus_daemon(sd_bus_message* message)
{
    const char* sender = sd_bus_message_get_sender(message);
    return sender != nullptr && std::string_view(sender) == kBusName;
}

int add_match(sd_bus* bus, Install mode, SlotPtr& slot, const std::string& rule,
              sd_bus_message_handler_t handler, void* userdata)
{
    sd_bus_slot* added = nullptr;
    const int r = mode == Install::Waiting
                      ? sd_bus_add_match(bus, &added, rule.c_str(), handler, userdata)
                      : sd_bus_add_match_async(bus, &added, rule.c_str(), handler, nullptr, userdata);
    slot.reset(added);
    return r < 0 ? r : 0;
}

} // namespace

bool SignalRule::valid() const
{
    return callback != nullptr && sd_bus_service_name_is_valid(sender.c_str()) > 0 &&
           (path.empty() || sd_bus_object_path_is_valid(path.c_str()) > 0) &&
           sd_bus_interface_name_is_valid(interface.c_str()) > 0 &&
           sd_bus_member_name_is_valid(member.c_str()) > 0;
}

SignalWatch::SignalWatch(SignalRule rule, std::function<void()> onFailure)
    : rule_(std::move(rule)), onFailure_(std::move(onFailure))
{
}

int SignalWatch::install(sd_bus* bus, Install mode)
{
    const int r = follow_owner(bus, mode);
    if (r < 0) {
        return r;
    }
    std::string match = "type='signal',sender='" + rule_.sender + "',interface='" + rule_.interface +
                        "',member='" + rule_.member + "'";
    if (!rule_.path.empty()) {
        match += ",path='" + rule_.path + "'";
    }
    return add_match(bus, mode, signal_, match, on_signal, this);
}

int SignalWatch::follow_owner(sd_bus* bus, Install mode)
{
    // First the match, then the question: a change in between is then announced after the answer.
    const std::string match = std::string("type='signal',sender='") + kBusName + "',path='" + kBusPath +
                              "',interface='" + kBusName + "',member='NameOwnerChanged',arg0='" +
                              rule_.sender + "'";
    const int r = add_match(bus, mode, ownerChanged_, match, on_owner_changed, this);
    if (r < 0) {
        return r;
    }
    return mode == Install::Waiting ? ask_owner(bus) : ask_owner_in_background(bus);
}

int SignalWatch::ask_owner(sd_bus* bus)
{
    // Waited for: the loop may next be busy for longer than the time-out of a call, and sd-bus then takes an
    // answer that has long come for one that never did.
    BusError error;
    sd_bus_message* received = nullptr;
    int r = sd_bus_call_method(bus, kBusName, kBusPath, kBusName, "GetNameOwner", error.get(), &received, "s",
                               rule_.sender.c_str());
    const MessagePtr answer(received);
    if (r < 0) {
        return error.has_name(SD_BUS_ERROR_NAME_HAS_NO_OWNER) ? 0 : r;
    }
    const char* owner = nullptr;
    r = sd_bus_message_read_basic(answer.get(), SD_BUS_TYPE_STRING, &owner);
    if (r > 0) {
        owner_ = owner;
    }
    return r;
}

int SignalWatch::ask_owner_in_background(sd_bus* bus)
{
    sd_bus_slot* asked = nullptr;
    const int r = sd_bus_call_method_async(bus, &asked, kBusName, kBusPath, kBusName, "GetNameOwner",
                                           on_owner_told, this, "s", rule_.sender.c_str());
    ownerAsked_.reset(asked);
    return r;
}

int SignalWatch::on_owner_changed(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto& watch = *static_cast<SignalWatch*>(userdata);
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    if (is_from_bus_daemon(message) && sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) > 0 &&
        watch.rule_.sender == name) {
        watch.owner_ = newOwner;
    }
    return 0;
}

int SignalWatch::on_owner_told(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto& watch = *static_cast<SignalWatch*>(userdata);
    const char* owner = nullptr;
    if (sd_bus_message_is_method_error(message, nullptr) > 0) {
        if (sd_bus_message_is_method_error(message, SD_BUS_ERROR_NAME_HAS_NO_OWNER) <= 0) {
            watch.onFailure_(); // without an answer the watch would be deaf
        }
    } else if (sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &owner) > 0) {
        watch.owner_ = owner;
    }
    return 0;
}

int SignalWatch::on_signal(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    const auto& watch = *static_cast<SignalWatch*>(userdata);
    const char* sender = sd_bus_message_get_sender(message);
    if (sender != nullptr && !watch.owner_.empty() && watch.owner_ == sender) {
        // The callback may end this watch, so nothing of it is used afterwards. Its result is dropped:
        // anything but 0 would keep the signal from the other watches of the connection.
        watch.rule_.callback(message, watch.rule_.userdata, error);
    }
    return 0;
}

} // namespace DbusHelper
