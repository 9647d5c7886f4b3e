#include "daemon.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include <unistd.h>

#include "daemon_names.hpp"
#include "properties.hpp"
#include "support/bus_connection.hpp"

namespace client {

namespace {

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

/** Microseconds until a moment that the bus library names on its clock; 0 when it has passed. */
std::uint64_t microseconds_at(std::uint64_t moment)
{
    if (moment == kForEver) {
        return kForEver;
    }
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch());
    const auto passed = static_cast<std::uint64_t>(now.count());
    return moment > passed ? moment - passed : 0;
}

Failure unreadable()
{
    return {ExitStatus::Refused, "the daemon's answer cannot be read", "", ""};
}

Result<Json> value_of(const std::string& property, sd_bus_message* reply)
{
    Json value;
    if (read_value(reply, value) < 0 || !fits(property, value)) {
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
    return reply ? value_of(property, reply.value().get()) : Result<Json>(reply.failure());
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

std::optional<Failure> Daemon::call(const char* method, Deadline deadline)
{
    auto request = make_call(kInterface, method);
    if (!request) {
        return request.failure();
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

void Daemon::set_later(const std::string& property, char type, const Json& value, Done done,
                       Deadline deadline)
{
    auto request = make_call(kProperties, "Set");
    if (request) {
        sd_bus_message_append(request.value().get(), "ss", kInterface, property.c_str());
        if (const int result = append_variant(request.value().get(), type, value); result < 0) {
            request = failure_of_bus(result);
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
        [property, got = std::move(got)](const Result<sd_bus_message*>& reply) {
            got(reply ? value_of(property, reply.value()) : Result<Json>(reply.failure()));
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

std::optional<Failure> Daemon::step(Deadline deadline)
{
    return step(deadline, {});
}

std::optional<Failure> Daemon::step(Deadline deadline, std::span<pollfd> others)
{
    // First, so that a busy bus does not keep them waiting.
    if (!others.empty() && ::poll(others.data(), others.size(), 0) > 0) {
        return std::nullopt;
    }
    for (;;) {
        int result = sd_bus_process(bus_.get(), nullptr);
        if (result > 0) {
            return std::nullopt;
        }
        if (result == 0) {
            result = wait(deadline, others);
            const bool other = std::ranges::any_of(others, [](const pollfd& fd) { return fd.revents != 0; });
            if (result == 0 || (result > 0 && other)) {
                return std::nullopt;
            }
        }
        if (result < 0 && result != -EINTR) {
            return failure_of_bus(result);
        }
    }
}

/** Waits for the bus or another descriptor. Returns 1, 0 when the deadline has come, or a negative errno. */
int Daemon::wait(Deadline deadline, std::span<pollfd> others)
{
    const int events = sd_bus_get_events(bus_.get());
    std::uint64_t wakeUp = kForEver; // on the clock of deadlines
    if (const int result = events < 0 ? events : sd_bus_get_timeout(bus_.get(), &wakeUp); result < 0) {
        return result;
    }
    std::vector<pollfd> polled(others.begin(), others.end());
    polled.push_back({sd_bus_get_fd(bus_.get()), static_cast<short>(events), 0});
    const std::uint64_t own = microseconds_at(wakeUp);
    const std::uint64_t left = std::min(microseconds_until(deadline), own);
    const timespec time = {static_cast<time_t>(left / 1'000'000), static_cast<long>(left % 1'000'000 * 1000)};
    const int ready = ::ppoll(polled.data(), polled.size(), left == kForEver ? nullptr : &time, nullptr);
    const int error = errno;
    for (std::size_t index = 0; index < others.size(); ++index) {
        others[index].revents = ready > 0 ? polled[index].revents : static_cast<short>(0);
    }
    if (ready < 0) {
        return -error;
    }
    return ready > 0 || microseconds_until(deadline) > 0 ? 1 : 0;
}

} // namespace client
