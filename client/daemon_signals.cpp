#include <array>
#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

#include "daemon.hpp"
#include "daemon_names.hpp"
#include "properties.hpp"

namespace client {

std::optional<Failure> Daemon::follow(Events events, Deadline deadline)
{
    events_ = std::move(events);
    const std::uint64_t left = microseconds_until(deadline);
    if (left == 0) {
        return failure_of_time();
    }
    if (std::exchange(following_, true)) {
        return ask_owner(deadline);
    }
    sd_bus_set_method_call_timeout(bus_.get(), left);

    struct Match
    {
        const char* sender;
        const char* path;
        const char* interface;
        const char* member;
        sd_bus_message_handler_t handler;
    };
    const auto matches = std::to_array<Match>({
        {kName, kPath, kProperties, "PropertiesChanged", on_changed},
        {kName, kPath, kInterface, "AccessPointsChanged", on_networks},
        {kBus, kBusPath, kBus, "NameOwnerChanged", on_owner},
    });
    for (const Match& match : matches) {
        const int result = sd_bus_match_signal(bus_.get(), nullptr, match.sender, match.path, match.interface,
                                               match.member, match.handler, this);
        if (result == -ETIMEDOUT) {
            return Failure{ExitStatus::TimedOut, "the user bus did not answer in time", "", ""};
        }
        if (result < 0) {
            return failure_of_bus(result);
        }
    }
    return ask_owner(deadline);
}

/** To be asked after the match: a change of the owner in between is announced. */
std::optional<Failure> Daemon::ask_owner(Deadline deadline)
{
    sd_bus_message* message = nullptr;
    int result = sd_bus_message_new_method_call(bus_.get(), &message, kBus, kBusPath, kBus, "GetNameOwner");
    MessagePtr request(message);
    if (result >= 0) {
        result = sd_bus_message_append_basic(request.get(), 's', kName);
    }
    if (result < 0) {
        return failure_of_bus(result);
    }
    const auto reply = send(std::move(request), deadline);
    const char* owner = nullptr;
    if (reply && sd_bus_message_read_basic(reply.value().get(), 's', &owner) > 0) {
        owner_ = owner;
        return std::nullopt;
    }
    // Nobody has the name: whoever waits for the daemon learns of it when it comes.
    const bool absent =
        !reply && reply.failure().status == ExitStatus::Unreachable && !reply.failure().errorName.empty();
    return reply || absent ? std::nullopt : std::optional(reply.failure());
}

/** Anybody on the bus may send this connection anything directly, past all matches. */
bool Daemon::is_believed(sd_bus_message* signal) const
{
    const char* const sender = sd_bus_message_get_sender(signal);
    return sender != nullptr && !owner_.empty() && owner_ == sender;
}

void Daemon::pass_over(const char* member) const
{
    if (events_.unreadable) {
        events_.unreadable(std::string("a signal of the daemon cannot be read and is passed over: ") +
                           member);
    }
}

int Daemon::on_changed(sd_bus_message* signal, void* userdata, sd_bus_error*)
{
    const auto& self = *static_cast<Daemon*>(userdata);
    if (!self.events_.changed || !self.is_believed(signal)) {
        return 0;
    }
    const char* interface = nullptr;
    Json values;
    const bool readable = sd_bus_message_read_basic(signal, 's', &interface) > 0;
    if (readable && interface != std::string_view(kInterface)) {
        return 0; // of the same object, and none of this program's business
    }
    bool typed = readable && read_dictionary(signal, values) >= 0;
    for (const auto& [property, value] : values.items()) {
        typed = typed && fits(property, value);
    }
    if (!typed) {
        self.pass_over("PropertiesChanged");
        return 0;
    }
    for (const auto& [property, value] : values.items()) {
        self.events_.changed(property, value);
    }
    return 0;
}

int Daemon::on_networks(sd_bus_message* signal, void* userdata, sd_bus_error*)
{
    const auto& self = *static_cast<Daemon*>(userdata);
    if (!self.events_.networks || !self.is_believed(signal)) {
        return 0;
    }
    Json list;
    if (read_value(signal, list) < 0 || !fits("AccessPoints", list)) {
        self.pass_over("AccessPointsChanged");
        return 0;
    }
    self.events_.networks(list);
    return 0;
}

int Daemon::on_owner(sd_bus_message* signal, void* userdata, sd_bus_error*)
{
    auto& self = *static_cast<Daemon*>(userdata);
    const char* const sender = sd_bus_message_get_sender(signal);
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    // The bus's own name cannot be taken, so it is the bus that says so.
    if (sender == nullptr || sender != std::string_view(kBus) ||
        sd_bus_message_read(signal, "sss", &name, &before, &after) <= 0 || name != std::string_view(kName)) {
        return 0;
    }
    self.owner_ = after;
    if (self.events_.presence) {
        self.events_.presence(!self.owner_.empty());
    }
    return 0;
}

} // namespace client
