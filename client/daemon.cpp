#include "daemon.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include <unistd.h>

#include "support/bus_connection.hpp"

namespace client {

namespace {

constexpr const char* kName = "com.vantora.Network1";
constexpr const char* kPath = "/com/vantora/Network1";
constexpr const char* kInterface = "com.vantora.Network1.WiFi";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

/** On a device nobody logs in, so nothing may tell root's programs where root's bus is. */
int set_usual_address(sd_bus* bus)
{
    return sd_bus_set_address(bus, ("unix:path=/run/user/" + std::to_string(::getuid()) + "/bus").c_str());
}

/** What a reply means: itself, or why there is none. */
Result<sd_bus_message*> judged(sd_bus_message* reply)
{
    if (const sd_bus_error* const error = sd_bus_message_get_error(reply); error != nullptr) {
        return failure_of_call(error->name, error->message, -sd_bus_message_get_errno(reply));
    }
    return reply;
}

Failure unreadable()
{
    return {ExitStatus::Refused, "the daemon's answer cannot be read", "", ""};
}

Result<Json> value_of(sd_bus_message* reply)
{
    Json value;
    if (read_value(reply, value) < 0) {
        return unreadable();
    }
    return value;
}

} // namespace

/** A call whose answer is awaited. */
struct Daemon::Pending
{
    Daemon* daemon;
    std::function<void(const Result<sd_bus_message*>&)> answered;
};

Daemon::Daemon(BusPtr bus) : bus_(std::move(bus))
{
}

Daemon::~Daemon() = default;

/** Returns 0 or more, or a negative errno. */
int Daemon::open_user_bus(BusPtr& opened)
{
    sd_bus* bus = nullptr;
    if (std::getenv("DBUS_SESSION_BUS_ADDRESS") != nullptr || std::getenv("XDG_RUNTIME_DIR") != nullptr) {
        const int result = sd_bus_open_user(&bus);
        opened.reset(bus);
        return result;
    }
    int result = sd_bus_new(&bus);
    opened.reset(bus);
    if (result >= 0) {
        result = set_usual_address(bus);
    }
    if (result >= 0) {
        result = sd_bus_set_bus_client(bus, 1);
    }
    return result < 0 ? result : sd_bus_start(bus);
}

Result<std::unique_ptr<Daemon>> Daemon::connect(Deadline deadline)
{
    BusPtr bus;
    if (const int result = open_user_bus(bus); result < 0) {
        return failure_of_bus(result);
    }
    std::unique_ptr<Daemon> daemon(new Daemon(std::move(bus)));
    if (auto failure = daemon->wait_for_bus(deadline)) {
        return *failure;
    }
    return daemon;
}

/** A call waits for the bus to say hello without looking at its own time-out, so this is done before the
 * first. */
std::optional<Failure> Daemon::wait_for_bus(Deadline deadline)
{
    const auto left = std::chrono::ceil<std::chrono::microseconds>(deadline - Clock::now());
    const int result = await_letting_in(bus_.get(), left);
    if (result == -ETIMEDOUT) {
        return Failure{ExitStatus::TimedOut, "the user bus did not answer in time", "", ""};
    }
    return result < 0 ? std::optional(failure_of_bus(result)) : std::nullopt;
}

Result<MessagePtr> Daemon::make_call(const char* interface, const char* member) const
{
    sd_bus_message* message = nullptr;
    const int result = sd_bus_message_new_method_call(bus_.get(), &message, kName, kPath, interface, member);
    MessagePtr owned(message);
    if (result < 0) {
        return failure_of_bus(result);
    }
    sd_bus_message_set_auto_start(message, 0);
    return owned;
}

Result<MessagePtr> Daemon::send(MessagePtr request, Deadline deadline) const
{
    const std::uint64_t left = microseconds_until(deadline);
    if (left == 0) {
        return failure_of_time();
    }
    BusError error;
    sd_bus_message* reply = nullptr;
    const int result = sd_bus_call(bus_.get(), request.get(), left, error.get(), &reply);
    MessagePtr owned(reply);
    if (result < 0) {
        return failure_of_call(error.name(), error.message(), result);
    }
    return owned;
}

Result<Json> Daemon::get(const std::string& property, Deadline deadline)
{
    auto request = make_call(kProperties, "Get");
    if (!request) {
        return request.failure();
    }
    sd_bus_message_append(request.value().get(), "ss", kInterface, property.c_str());
    auto reply = send(std::move(request.value()), deadline);
    return reply ? value_of(reply.value().get()) : Result<Json>(reply.failure());
}

std::optional<Failure> Daemon::set(const std::string& property, char type, const Json& value,
                                   Deadline deadline)
{
    auto request = make_call(kProperties, "Set");
    if (!request) {
        return request.failure();
    }
    sd_bus_message_append(request.value().get(), "ss", kInterface, property.c_str());
    if (const int result = append_variant(request.value().get(), type, value); result < 0) {
        return failure_of_bus(result);
    }
    const auto reply = send(std::move(request.value()), deadline);
    return reply ? std::nullopt : std::optional(reply.failure());
}

std::optional<Failure> Daemon::call(const char* method, const std::vector<std::string>& arguments,
                                    Deadline deadline)
{
    auto request = make_call(kInterface, method);
    if (!request) {
        return request.failure();
    }
    for (const std::string& argument : arguments) {
        if (const int result = sd_bus_message_append_basic(request.value().get(), 's', argument.c_str());
            result < 0) {
            return failure_of_bus(result);
        }
    }
    const auto reply = send(std::move(request.value()), deadline);
    return reply ? std::nullopt : std::optional(reply.failure());
}

void Daemon::call_later(const char* method, const std::vector<std::string>& arguments, Done done,
                        Deadline deadline)
{
    auto request = make_call(kInterface, method);
    if (request) {
        sd_bus_message_sensitive(request.value().get());
        for (const std::string& argument : arguments) {
            if (const int result = sd_bus_message_append_basic(request.value().get(), 's', argument.c_str());
                result < 0) {
                request = failure_of_bus(result);
                break;
            }
        }
    }
    send_later(
        std::move(request),
        [done = std::move(done)](const Result<sd_bus_message*>& reply) {
            done(reply ? std::nullopt : std::optional(reply.failure()));
        },
        deadline);
}

void Daemon::get_later(const std::string& property, Got got, Deadline deadline)
{
    auto request = make_call(kProperties, "Get");
    if (request) {
        sd_bus_message_append(request.value().get(), "ss", kInterface, property.c_str());
    }
    send_later(
        std::move(request),
        [got = std::move(got)](const Result<sd_bus_message*>& reply) {
            got(reply ? value_of(reply.value()) : Result<Json>(reply.failure()));
        },
        deadline);
}

void Daemon::send_later(Result<MessagePtr> request,
                        std::function<void(const Result<sd_bus_message*>&)> answered, Deadline deadline)
{
    if (!request) {
        answered(request.failure());
        return;
    }
    // The caller watches the deadline. The bus library's own must not come first: it speaks of it as the bus
    // does of a daemon that died.
    constexpr std::uint64_t kLater = 5'000'000;
    const std::uint64_t left = microseconds_until(deadline);
    const std::uint64_t patience = left > kForEver - kLater ? kForEver : left + kLater;

    auto pending = std::make_unique<Pending>(Pending{this, std::move(answered)});
    const int result =
        sd_bus_call_async(bus_.get(), nullptr, request.value().get(), on_reply, pending.get(), patience);
    if (result < 0) {
        pending->answered(failure_of_bus(result));
        return;
    }
    pending_.push_back(std::move(pending));
}

int Daemon::on_reply(sd_bus_message* reply, void* userdata, sd_bus_error*)
{
    auto* const pending = static_cast<Pending*>(userdata);
    auto& all = pending->daemon->pending_;
    const auto found = std::ranges::find(all, pending, &std::unique_ptr<Pending>::get);
    const std::unique_ptr<Pending> done = std::move(*found);
    all.erase(found);
    done->answered(judged(reply));
    return 0;
}

std::optional<Failure> Daemon::follow(Events events, Deadline deadline)
{
    events_ = std::move(events);
    const std::uint64_t left = microseconds_until(deadline);
    if (left == 0) {
        return failure_of_time();
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
        {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
         on_owner},
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
    return std::nullopt;
}

int Daemon::on_changed(sd_bus_message* signal, void* userdata, sd_bus_error*)
{
    const auto& changed = static_cast<Daemon*>(userdata)->events_.changed;
    const char* interface = nullptr;
    Json values;
    if (!changed || sd_bus_message_read_basic(signal, 's', &interface) <= 0 ||
        interface != std::string_view(kInterface) || read_dictionary(signal, values) < 0) {
        return 0;
    }
    for (const auto& [property, value] : values.items()) {
        changed(property, value);
    }
    return 0;
}

int Daemon::on_networks(sd_bus_message* signal, void* userdata, sd_bus_error*)
{
    const auto& networks = static_cast<Daemon*>(userdata)->events_.networks;
    Json list;
    if (networks && read_value(signal, list) >= 0) {
        networks(list);
    }
    return 0;
}

int Daemon::on_owner(sd_bus_message* signal, void* userdata, sd_bus_error*)
{
    const auto& presence = static_cast<Daemon*>(userdata)->events_.presence;
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (presence && sd_bus_message_read(signal, "sss", &name, &before, &after) > 0 &&
        name == std::string_view(kName)) {
        presence(*after != '\0');
    }
    return 0;
}

std::optional<Failure> Daemon::step(Deadline deadline)
{
    for (;;) {
        int result = sd_bus_process(bus_.get(), nullptr);
        if (result > 0) {
            return std::nullopt;
        }
        const std::uint64_t left = microseconds_until(deadline);
        if (result == 0 && left == 0) {
            return std::nullopt;
        }
        if (result == 0) {
            result = sd_bus_wait(bus_.get(), left);
        }
        if (result < 0 && result != -EINTR) {
            return failure_of_bus(result);
        }
    }
}

} // namespace client
