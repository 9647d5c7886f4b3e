#include "wire.hpp"

#include <cerrno>

namespace settingsd {

int append_value(sd_bus_message* message, const Value& value)
{
    if (const auto* flag = std::get_if<bool>(&value)) {
        return sd_bus_message_append(message, "b", static_cast<int>(*flag));
    }
    if (const auto* number = std::get_if<std::int32_t>(&value)) {
        return sd_bus_message_append(message, "i", *number);
    }
    return sd_bus_message_append(message, "s", std::get<std::string>(value).c_str());
}

int read_value(sd_bus_message* message, const Value& example, Value& value)
{
    int number = 0;
    const char* text = nullptr;
    const char type = *type_of(example);
    const int r = type == SD_BUS_TYPE_STRING ? sd_bus_message_read_basic(message, type, &text)
                                             : sd_bus_message_read_basic(message, type, &number);
    if (r <= 0) {
        return r < 0 ? r : -EBADMSG;
    }
    switch (type) {
    case SD_BUS_TYPE_STRING:
        value = std::string(text);
        break;
    case SD_BUS_TYPE_BOOLEAN:
        value = number != 0;
        break;
    default:
        value = std::int32_t{number};
        break;
    }
    return r;
}

} // namespace settingsd
