#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

#include "dbus-helper/sdbus_utils.hpp"
#include "support/bus_connection.hpp"
#include "support/sd_bus_owners.hpp"
#include "value_decoder.hpp"

namespace sdbus_utils {

namespace {

constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";

std::string errno_text(int r)
{
    return std::system_category().message(-r);
}

/** The bus of one call: the caller's, or a connection to the user bus that lives as long as this object. */
class BusForCall
{
public:
    explicit BusForCall(sd_bus* bus) : bus_(bus) {}

    /** Returns 0 or more once get() can be used, else a negative errno. */
    int open()
    {
        if (bus_ != nullptr) {
            return 0;
        }
        const int r = open_user_bus(own_);
        bus_ = own_.get();
        return r;
    }

    sd_bus* get() const { return bus_; }

private:
    sd_bus* bus_;
    BusPtr own_;
};

/** The four names of a property, for calls and for error texts. */
struct Property
{
    const char* service;
    const char* path;
    const char* interface;
    const char* name;
};

std::string failure_text(int r, const BusError& error)
{
    if (*error.message() != '\0') {
        return error.message();
    }
    return error.name() != nullptr ? std::string(error.name()) : errno_text(r);
}

/** As BusForCall::open; `error` says why it failed. */
int open_or_explain(BusForCall& connection, std::string& error)
{
    const int r = connection.open();
    if (r < 0) {
        error = "Cannot open the user bus: " + errno_text(r);
    }
    return r;
}

/** Calls Get and enters the variant of the reply, which must hold exactly `type`. */
int fetch(sd_bus* bus, const Property& property, const char* type, MessagePtr& reply, std::string& error)
{
    BusForCall connection(bus);
    int r = open_or_explain(connection, error);
    if (r < 0) {
        return r;
    }
    BusError busError;
    sd_bus_message* answer = nullptr;
    r = sd_bus_call_method(connection.get(), property.service, property.path, kPropertiesInterface, "Get",
                           busError.get(), &answer, "ss", property.interface, property.name);
    reply.reset(answer);
    if (r < 0) {
        error = failure_text(r, busError);
        return r;
    }
    char outer = 0;
    const char* contents = nullptr;
    r = sd_bus_message_peek_type(answer, &outer, &contents);
    if (r >= 0 && outer != SD_BUS_TYPE_VARIANT) {
        error = std::string("The reply for property ") + property.name + " holds '" +
                sd_bus_message_get_signature(answer, 1) + "' in place of a variant";
        return -ENXIO;
    }
    if (r > 0 && std::string_view(contents) != type) {
        error =
            std::string("Property ") + property.name + " is of type '" + contents + "', not '" + type + "'";
        return -ENXIO;
    }
    if (r > 0) {
        r = sd_bus_message_enter_container(answer, SD_BUS_TYPE_VARIANT, type);
    }
    if (r < 0) {
        error = std::string("Cannot read property ") + property.name + ": " + errno_text(r);
    }
    return r;
}

/** Ends a successful fetch(): the value was read with result r. */
int finish_reading(int r, const Property& property, std::string& error)
{
    r = detail::required(r);
    if (r < 0) {
        error = std::string("Cannot read property ") + property.name + ": " + errno_text(r);
    }
    return r;
}

/** Calls Set with the given value, as sd_bus_message_append takes it. */
template <typename Wire>
int store(sd_bus* bus, const Property& property, const char* type, Wire value, std::string& error)
{
    BusForCall connection(bus);
    int r = open_or_explain(connection, error);
    if (r < 0) {
        return r;
    }
    BusError busError;
    r = sd_bus_set_property(connection.get(), property.service, property.path, property.interface,
                            property.name, busError.get(), type, value);
    if (r < 0) {
        error = failure_text(r, busError);
    }
    return r;
}

} // namespace

int GetProperty(sd_bus* bus, const char* service, const char* path, const char* interface,
                const char* property, bool& value, std::string& error)
{
    const Property names = {service, path, interface, property};
    MessagePtr reply;
    int r = fetch(bus, names, "b", reply, error);
    if (r < 0) {
        return r;
    }
    int wire = 0;
    r = finish_reading(sd_bus_message_read_basic(reply.get(), SD_BUS_TYPE_BOOLEAN, &wire), names, error);
    if (r >= 0) {
        value = wire != 0;
    }
    return r;
}

int GetProperty(sd_bus* bus, const char* service, const char* path, const char* interface,
                const char* property, std::string& value, std::string& error)
{
    const Property names = {service, path, interface, property};
    MessagePtr reply;
    int r = fetch(bus, names, "s", reply, error);
    if (r < 0) {
        return r;
    }
    const char* wire = nullptr;
    r = finish_reading(sd_bus_message_read_basic(reply.get(), SD_BUS_TYPE_STRING, &wire), names, error);
    if (r >= 0) {
        value = wire;
    }
    return r;
}

int GetProperty(sd_bus* bus, const char* service, const char* path, const char* interface,
                const char* property, std::vector<std::string>& value, std::string& error)
{
    const Property names = {service, path, interface, property};
    MessagePtr reply;
    int r = fetch(bus, names, "ao", reply, error);
    if (r < 0) {
        return r;
    }
    r = finish_reading(sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_ARRAY, "o"), names, error);
    if (r < 0) {
        return r;
    }
    std::vector<std::string> paths;
    const char* wire = nullptr;
    while ((r = sd_bus_message_read_basic(reply.get(), SD_BUS_TYPE_OBJECT_PATH, &wire)) > 0) {
        paths.emplace_back(wire);
    }
    if (r < 0) {
        return finish_reading(r, names, error);
    }
    value = std::move(paths);
    return 0;
}

int SetProperty(sd_bus* bus, const char* service, const char* path, const char* interface,
                const char* property, bool value, std::string& error)
{
    return store(bus, {service, path, interface, property}, "b", static_cast<int>(value), error);
}

int SetProperty(sd_bus* bus, const char* service, const char* path, const char* interface,
                const char* property, const std::string& value, std::string& error)
{
    if (value.find('\0') != std::string::npos) {
        // The bus would silently take the text up to the NUL.
        error = std::string("The value for property ") + property + " holds a NUL character";
        return -EINVAL;
    }
    return store(bus, {service, path, interface, property}, "s", value.c_str(), error);
}

int GetAllProperties(sd_bus* bus, const std::string& service, const std::string& path,
                     const std::string& interface, TypedPropertyMap& properties)
{
    properties.clear();
    BusForCall connection(bus);
    int r = connection.open();
    if (r < 0) {
        return r;
    }
    BusError error;
    sd_bus_message* answer = nullptr;
    r = sd_bus_call_method(connection.get(), service.c_str(), path.c_str(), kPropertiesInterface, "GetAll",
                           error.get(), &answer, "s", interface.c_str());
    const MessagePtr reply(answer);
    return r < 0 ? r : ParsePropertiesWithType(answer, properties);
}

} // namespace sdbus_utils
