#include "message_copy.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace {

/** Arrays of these are one piece of memory, and read and written as such. */
bool is_fixed_in_size(const char* type)
{
    constexpr const char* kFixed = "ynqiuxtd";

    return type[0] != '\0' && type[1] == '\0' && std::strchr(kFixed, type[0]) != nullptr;
}

bool is_text(char type)
{
    return type == SD_BUS_TYPE_STRING || type == SD_BUS_TYPE_OBJECT_PATH || type == SD_BUS_TYPE_SIGNATURE;
}

int copy_array_of_numbers(sd_bus_message* to, sd_bus_message* from, char element)
{
    const void* values = nullptr;
    size_t size = 0;
    const int result = sd_bus_message_read_array(from, element, &values, &size);
    return result < 0 ? result : sd_bus_message_append_array(to, element, values, size);
}

int copy_container(sd_bus_message* to, sd_bus_message* from, char type, const char* contents)
{
    int result = sd_bus_message_enter_container(from, type, contents);
    if (result < 0) {
        return result;
    }
    result = sd_bus_message_open_container(to, type, contents);
    if (result < 0) {
        return result;
    }
    result = copy_body(to, from);
    if (result < 0) {
        return result;
    }
    result = sd_bus_message_close_container(to);
    return result < 0 ? result : sd_bus_message_exit_container(from);
}

int copy_basic(sd_bus_message* to, sd_bus_message* from, char type)
{
    if (is_text(type)) {
        const char* text = nullptr;
        const int result = sd_bus_message_read_basic(from, type, static_cast<void*>(&text));
        return result < 0 ? result : sd_bus_message_append_basic(to, type, text);
    }
    // As long as the longest of the other types.
    alignas(uint64_t) std::array<std::byte, sizeof(uint64_t)> value{};
    const int result = sd_bus_message_read_basic(from, type, value.data());
    return result < 0 ? result : sd_bus_message_append_basic(to, type, value.data());
}

int new_error(sd_bus_message* call, const char* name, MessagePtr& made)
{
    // Without a text: an error's body is copied like any other.
    BusError error;
    sd_bus_error_set(error.get(), name, nullptr);
    sd_bus_message* created = nullptr;
    const int result = sd_bus_message_new_method_error(call, &created, error.get());
    made.reset(created);
    return result;
}

int new_return(sd_bus_message* call, MessagePtr& made)
{
    sd_bus_message* created = nullptr;
    const int result = sd_bus_message_new_method_return(call, &created);
    made.reset(created);
    return result;
}

} // namespace

int copy_body(sd_bus_message* to, sd_bus_message* from)
{
    for (;;) {
        char type = 0;
        const char* contents = nullptr;
        int result = sd_bus_message_peek_type(from, &type, &contents);
        if (result <= 0) {
            return result;
        }
        if (contents == nullptr) {
            result = copy_basic(to, from, type);
        } else if (type == SD_BUS_TYPE_ARRAY && is_fixed_in_size(contents)) {
            result = copy_array_of_numbers(to, from, contents[0]);
        } else {
            result = copy_container(to, from, type, contents);
        }
        if (result < 0) {
            return result;
        }
    }
}

int make_handed_call(sd_bus* bus, sd_bus_message* call, const char* destination, const char* path,
                     MessagePtr& made)
{
    sd_bus_message* created = nullptr;
    int result =
        sd_bus_message_new_method_call(bus, &created, destination, path, sd_bus_message_get_interface(call),
                                       sd_bus_message_get_member(call));
    made.reset(created);
    if (result < 0) {
        return result;
    }
    sd_bus_message_set_expect_reply(created, sd_bus_message_get_expect_reply(call));
    sd_bus_message_set_auto_start(created, sd_bus_message_get_auto_start(call));
    sd_bus_message_set_allow_interactive_authorization(
        created, sd_bus_message_get_allow_interactive_authorization(call));
    result = sd_bus_message_rewind(call, 1);
    return result < 0 ? result : copy_body(created, call);
}

int make_answer(sd_bus_message* call, sd_bus_message* answer, MessagePtr& made)
{
    const sd_bus_error* error = sd_bus_message_get_error(answer);
    int result = error != nullptr ? new_error(call, error->name, made) : new_return(call, made);
    if (result < 0) {
        return result;
    }
    result = sd_bus_message_rewind(answer, 1);
    return result < 0 ? result : copy_body(made.get(), answer);
}
