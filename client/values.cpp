#include "values.hpp"

#include <cerrno>
#include <cstdint>
#include <string>

#include "signal_bars.hpp"

namespace client {

namespace {

int read_text(sd_bus_message* message, Json& value)
{
    const char* text = nullptr;
    const int result = sd_bus_message_read_basic(message, 's', &text);
    if (result > 0) {
        value = text;
    }
    return result;
}

int read_texts(sd_bus_message* message, Json& value)
{
    int result = sd_bus_message_enter_container(message, 'a', "s");
    value = Json::array();
    for (Json text; result > 0 && (result = read_text(message, text)) > 0;) {
        value.push_back(text);
    }
    return result < 0 ? result : sd_bus_message_exit_container(message);
}

int read_networks(sd_bus_message* message, Json& value)
{
    int result = sd_bus_message_enter_container(message, 'a', "(siib)");
    value = Json::array();
    while (result > 0) {
        const char* ssid = nullptr;
        std::int32_t privacy = 0;
        std::int32_t signal = 0;
        int passphrase = 0;
        result = sd_bus_message_read(message, "(siib)", &ssid, &privacy, &signal, &passphrase);
        if (result > 0) {
            value.push_back(network_value(ssid, privacy != 0, signal, passphrase != 0));
        }
    }
    return result < 0 ? result : sd_bus_message_exit_container(message);
}

int read_number(sd_bus_message* message, char type, Json& value)
{
    union {
        std::uint32_t u;
        std::int32_t i;
        int b;
    } number = {};
    const int result = sd_bus_message_read_basic(message, type, &number);
    if (result > 0) {
        switch (type) {
        case 'u':
            value = number.u;
            break;
        case 'i':
            value = number.i;
            break;
        default:
            value = number.b != 0;
            break;
        }
    }
    return result;
}

} // namespace

int next_type(sd_bus_message* message, char& type, std::string& contents)
{
    const char* held = nullptr;
    const int result = sd_bus_message_peek_type(message, &type, &held);
    contents = held != nullptr ? held : "";
    return result == 0 ? -ENXIO : result;
}

int read_value(sd_bus_message* message, Json& value)
{
    char type = 0;
    std::string contents;
    int result = next_type(message, type, contents);
    if (result < 0) {
        return result;
    }
    switch (type) {
    case 's':
        return read_text(message, value);
    case 'u':
    case 'i':
    case 'b':
        return read_number(message, type, value);
    case 'v':
        result = sd_bus_message_enter_container(message, 'v', contents.c_str());
        if (result > 0) {
            result = read_value(message, value);
        }
        return result < 0 ? result : sd_bus_message_exit_container(message);
    case 'a':
        if (contents == "s") {
            return read_texts(message, value);
        }
        if (contents == "(siib)") {
            return read_networks(message, value);
        }
        return -EBADMSG;
    default:
        return -EBADMSG;
    }
}

int read_dictionary(sd_bus_message* message, Json& values)
{
    int result = sd_bus_message_enter_container(message, 'a', "{sv}");
    values = Json::object();
    while (result > 0 && (result = sd_bus_message_enter_container(message, 'e', "sv")) > 0) {
        const char* name = nullptr;
        result = sd_bus_message_read_basic(message, 's', &name);
        if (result <= 0) {
            break;
        }
        const std::string key = name;
        Json value;
        result = read_value(message, value);
        if (result < 0) {
            break;
        }
        values[key] = std::move(value);
        result = sd_bus_message_exit_container(message);
    }
    return result < 0 ? result : sd_bus_message_exit_container(message);
}

Json network_value(const std::string& ssid, bool encrypted, int signal, bool passphrase)
{
    return {{"ssid", ssid},           {"signal", signal},      {"bars", signal_bars(signal)},
            {"encrypted", encrypted}, {"wpa_psk", passphrase}, {"joinable", !encrypted || passphrase}};
}

int append_variant(sd_bus_message* message, char type, const Json& value)
{
    if (type == 'u') {
        return sd_bus_message_append(message, "v", "u", value.get<std::uint32_t>());
    }
    return sd_bus_message_append(message, "v", "s", value.get<std::string>().c_str());
}

} // namespace client
