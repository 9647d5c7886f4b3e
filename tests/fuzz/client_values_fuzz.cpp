#include "client/values.hpp"

#include "message_builder.hpp"

// What the command-line client reads of the daemon's answers: dictionaries with values of any type. It takes
// the types that the daemon has and no others, and can print what it took.

namespace {

bool is_known(const std::string& type)
{
    return type == "s" || type == "u" || type == "i" || type == "b" || type == "as" || type == "a(siib)";
}

/** Appends the dictionary {"AccessPoints": networks} of any names and numbers. Returns how many networks. */
size_t append_networks(const MessagePtr& message, fuzz::Input& input)
{
    sd_bus_message* to = message.get();
    sd_bus_message_open_container(to, 'a', "{sv}");
    sd_bus_message_open_container(to, 'e', "sv");
    sd_bus_message_append(to, "s", "AccessPoints");
    sd_bus_message_open_container(to, 'v', "a(siib)");
    sd_bus_message_open_container(to, 'a', "(siib)");
    size_t count = 0;
    for (; !input.empty(); ++count) {
        std::string ssid(input.bytes());
        std::erase(ssid, '\0');
        const auto privacy = static_cast<int>(input.number<int8_t>());
        const auto signal = input.number<int32_t>();
        const int result =
            sd_bus_message_append(to, "(siib)", fuzz::is_valid_text(ssid) ? ssid.c_str() : "net", privacy,
                                  signal, static_cast<int>(input.below(2)));
        fuzz::require(result >= 0, "a network can be appended");
    }
    for (int open = 4; open > 0; --open) {
        fuzz::require(sd_bus_message_close_container(to) >= 0, "a container can be closed");
    }
    return count;
}

void check_networks(fuzz::Input& input)
{
    const MessagePtr message = fuzz::new_signal();
    const size_t count = append_networks(message, input);
    fuzz::make_readable(message);
    client::Json values;
    fuzz::require(client::read_dictionary(message.get(), values) == 1, "networks are read");
    fuzz::require(values.size() == 1 && values["AccessPoints"].size() == count, "all of them");
    fuzz::require(client::Json::parse(values.dump()) == values, "and printed so that programs can read them");
}

void check_any(fuzz::Input& input)
{
    const MessagePtr message = fuzz::new_signal();
    fuzz::MessageBuilder builder(input, {"Mode", "SSID", "WiFiState", "WiFiAvailableFrequencies"});
    fuzz::ExpectedTypes kept;
    builder.append_dictionary(message, kept);
    fuzz::make_readable(message);

    client::Json values;
    const int result = client::read_dictionary(message.get(), values);
    fuzz::require(result == 1 || result < 0, "read or not");
    if (result < 0) {
        return;
    }
    fuzz::require(client::Json::parse(values.dump()) == values, "what is read can be printed");
    for (const auto& [name, type] : kept) {
        fuzz::require(values.contains(name), "no entry is lost");
        fuzz::require(is_known(type) || type == "v", "no other type passes for one of the daemon's");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    if (input.below(3) == 0) {
        check_networks(input);
    } else {
        check_any(input);
    }
    return 0;
}
