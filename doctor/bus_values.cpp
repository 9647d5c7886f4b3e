#include "bus_values.hpp"

#include <cerrno>
#include <cstdint>
#include <string>

#include "client/values.hpp"

namespace doctor {

namespace {

using Json = nlohmann::json;

template <typename T>
int read_basic(sd_bus_message* message, char type, Json& value)
{
    T held{};
    const int result = sd_bus_message_read_basic(message, type, &held);
    if (result > 0) {
        value = held;
    }
    return result;
}

int read_one(sd_bus_message* message, Json& value);

/** The values up to the end of a container; a dictionary's entries are arrays of two. */
int read_elements(sd_bus_message* message, Json& values)
{
    for (;;) {
        const int atEnd = sd_bus_message_at_end(message, 0);
        if (atEnd != 0) {
            return atEnd < 0 ? atEnd : 0;
        }
        Json value;
        const int result = read_one(message, value);
        if (result < 0) {
            return result;
        }
        values.push_back(std::move(value));
    }
}

/** Makes an object of the entries of a dictionary. */
Json object_of(const Json& entries)
{
    Json object = Json::object();
    for (const Json& entry : entries) {
        const Json& key = entry.front();
        object[key.is_string() ? key.get<std::string>() : key.dump()] = entry.back();
    }
    return object;
}

int read_container(sd_bus_message* message, char type, const std::string& contents, Json& value)
{
    int result = sd_bus_message_enter_container(message, type, contents.c_str());
    if (result < 0) {
        return result;
    }
    Json values = Json::array();
    result = read_elements(message, values);
    if (result < 0) {
        return result;
    }
    if (type == 'v') {
        value = values.empty() ? Json() : values.front();
    } else if (type == 'a' && contents.starts_with('{')) {
        value = object_of(values);
    } else {
        value = std::move(values);
    }
    return sd_bus_message_exit_container(message);
}

int read_one(sd_bus_message* message, Json& value)
{
    char type = 0;
    std::string contents;
    int result = client::next_type(message, type, contents);
    if (result < 0) {
        return result;
    }
    switch (type) {
    case 'y':
        return read_basic<std::uint8_t>(message, type, value);
    case 'n':
        return read_basic<std::int16_t>(message, type, value);
    case 'q':
        return read_basic<std::uint16_t>(message, type, value);
    case 'i':
        return read_basic<std::int32_t>(message, type, value);
    case 'u':
        return read_basic<std::uint32_t>(message, type, value);
    case 'x':
        return read_basic<std::int64_t>(message, type, value);
    case 't':
        return read_basic<std::uint64_t>(message, type, value);
    case 'd':
        return read_basic<double>(message, type, value);
    case 's':
    case 'o':
    case 'g':
        return read_basic<const char*>(message, type, value);
    case 'b':
        result = read_basic<int>(message, type, value);
        if (result > 0) {
            value = value.get<int>() != 0;
        }
        return result;
    case 'h':
        return sd_bus_message_skip(message, "h");
    case 'a':
    case 'v':
    case 'r':
    case 'e':
        return read_container(message, type, contents, value);
    default:
        return -EBADMSG;
    }
}

} // namespace

int read_values(sd_bus_message* message, nlohmann::json& values)
{
    return read_elements(message, values);
}

} // namespace doctor
