#include "bus.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "bus_values.hpp"
#include "support/bus_connection.hpp"

namespace doctor {

namespace {

const Target kBusItself = {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"};
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

Reply without_answer(Reply::Kind kind, int error)
{
    return {kind, Json::array(), "", std::strerror(error < 0 ? -error : error)};
}

/** Appends the arguments as the signature has them. Returns 0 or more, or a negative errno. */
int append(sd_bus_message* message, std::string_view signature, const Json& arguments)
{
    int result = 0;
    for (const Json& argument : arguments) {
        if (signature.starts_with("as")) {
            signature.remove_prefix(2);
            result = sd_bus_message_open_container(message, 'a', "s");
            for (const Json& word : argument) {
                result = result < 0 ? result
                                    : sd_bus_message_append(message, "s",
                                                            word.get_ref<const std::string&>().c_str());
            }
            result = result < 0 ? result : sd_bus_message_close_container(message);
        } else if (signature.starts_with('b')) {
            signature.remove_prefix(1);
            result = sd_bus_message_append(message, "b", argument.get<bool>() ? 1 : 0);
        } else {
            signature.remove_prefix(1);
            result = sd_bus_message_append(message, "s", argument.get_ref<const std::string&>().c_str());
        }
        if (result < 0) {
            return result;
        }
    }
    return result;
}

} // namespace

Reply Bus::property(const Target& target, const std::string& name)
{
    return call({target.name, target.path, kProperties}, "Get", "ss", {target.interface, name});
}

Reply Bus::properties(const Target& target)
{
    return call({target.name, target.path, kProperties}, "GetAll", "s", {target.interface});
}

Reply Bus::owner(const std::string& name)
{
    Reply reply = call(kBusItself, "GetNameOwner", "s", {name});
    if (reply.kind == Reply::Kind::Refused && reply.error.ends_with(".NameHasNoOwner")) {
        return {Reply::Kind::Answered, Json::array({""}), "", ""};
    }
    return reply;
}

void RealBus::open()
{
    using std::chrono::microseconds;
    opened_ = true;
    const microseconds time = patience_.share(kLongest);
    if (address_.empty()) {
        failure_ = open_system_bus(bus_, time);
    } else {
        sd_bus* bus = nullptr;
        failure_ = sd_bus_new(&bus);
        bus_.reset(bus);
        failure_ = failure_ < 0 ? failure_ : sd_bus_set_address(bus, address_.c_str());
        failure_ = failure_ < 0 ? failure_ : sd_bus_set_bus_client(bus, 1);
        failure_ = failure_ < 0 ? failure_ : sd_bus_start(bus);
        failure_ = failure_ < 0 ? failure_ : await_letting_in(bus, time);
    }
    // The one that gives a system bus up says so only by having closed the connection.
    if (failure_ >= 0 && sd_bus_is_ready(bus_.get()) <= 0) {
        failure_ = -ETIMEDOUT;
    }
}

Reply RealBus::call(const Target& target, const std::string& member, const std::string& signature,
                    const Json& arguments)
{
    if (!opened_) {
        open();
    }
    if (failure_ < 0) {
        return without_answer(Reply::Kind::Unreachable, failure_);
    }
    const auto time = std::chrono::microseconds(patience_.share(kLongest));
    if (hung_.contains(target.name) || time.count() == 0) {
        return without_answer(Reply::Kind::Silent, ETIMEDOUT);
    }

    sd_bus_message* made = nullptr;
    int result = sd_bus_message_new_method_call(bus_.get(), &made, target.name.c_str(), target.path.c_str(),
                                                target.interface.c_str(), member.c_str());
    const MessagePtr request(made);
    result = result < 0 ? result : sd_bus_message_set_auto_start(request.get(), 0);
    result = result < 0 ? result : append(request.get(), signature, arguments);
    if (result < 0) {
        return without_answer(Reply::Kind::Refused, result);
    }

    BusError error;
    sd_bus_message* came = nullptr;
    result =
        sd_bus_call(bus_.get(), request.get(), static_cast<std::uint64_t>(time.count()), error.get(), &came);
    const MessagePtr answer(came);
    if (result < 0 && (result == -ETIMEDOUT || error.has_name("org.freedesktop.DBus.Error.NoReply") ||
                       error.has_name("org.freedesktop.DBus.Error.Timeout"))) {
        hung_.insert(target.name);
        return without_answer(Reply::Kind::Silent, ETIMEDOUT);
    }
    if (result < 0 && error.name() != nullptr) {
        return {Reply::Kind::Refused, Json::array(), error.name(), error.message()};
    }
    if (result < 0) {
        return without_answer(Reply::Kind::Unreachable, result);
    }
    Reply reply = {Reply::Kind::Answered, Json::array(), "", ""};
    if (read_values(answer.get(), reply.values) < 0) {
        return without_answer(Reply::Kind::Refused, EBADMSG);
    }
    return reply;
}

std::string roots_bus_address()
{
    constexpr const char* kRoots = "unix:path=/run/user/0/bus";
    const char* const told = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    const std::string_view address = told != nullptr ? told : "";
    // sudo may hand on where the ordinary user's bus is, on which none of ours has any business.
    return address.empty() || address.starts_with("unix:path=/run/user/") ? kRoots : std::string(address);
}

} // namespace doctor
