// Prints mode and state of the Wi-Fi, and every change of them, until the bus is lost.
//
//   c++ -std=c++20 -o follow_state follow_state.cpp $(pkg-config --cflags --libs libsystemd)

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <systemd/sd-bus.h>

namespace {

constexpr const char* kName = "com.vantora.Network1";
constexpr const char* kPath = "/com/vantora/Network1";
constexpr const char* kInterface = "com.vantora.Network1.WiFi";

struct CloseBus
{
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};

/** Nobody may read what is still in the buffer of a pipe, so every line leaves at once. */
void print(const char* property, const char* value)
{
    std::printf("%s = %s\n", property, value);
    std::fflush(stdout);
}

/** PropertiesChanged(interface, {name: value}, [names without value]); the daemon sends one name a signal. */
int changed(sd_bus_message* signal, void*, sd_bus_error*)
{
    const char* interface = nullptr;
    if (sd_bus_message_read(signal, "s", &interface) < 0 || std::strcmp(interface, kInterface) != 0 ||
        sd_bus_message_enter_container(signal, 'a', "{sv}") < 0) {
        return 0;
    }
    while (sd_bus_message_enter_container(signal, 'e', "sv") > 0) {
        const char* property = nullptr;
        const char* type = nullptr;
        sd_bus_message_read(signal, "s", &property);
        sd_bus_message_peek_type(signal, nullptr, &type);
        if (type != nullptr && std::strcmp(type, "s") == 0) {
            const char* value = nullptr;
            sd_bus_message_read(signal, "v", "s", &value);
            print(property, value);
        } else {
            sd_bus_message_skip(signal, "v");
        }
        sd_bus_message_exit_container(signal);
    }
    return 0;
}

/** Prints a text property as it is now. */
void print_property(sd_bus* bus, const char* property)
{
    char* value = nullptr;
    const int result = sd_bus_get_property_string(bus, kName, kPath, kInterface, property, nullptr, &value);
    const std::unique_ptr<char, decltype(&std::free)> owned(value, std::free);
    if (result < 0) {
        std::fprintf(stderr, "%s: %s\n", property, std::strerror(-result));
        return;
    }
    print(property, value);
}

} // namespace

int main()
{
    sd_bus* opened = nullptr;
    int result = sd_bus_open_user(&opened);
    const std::unique_ptr<sd_bus, CloseBus> bus(opened);
    if (result < 0) {
        std::fprintf(stderr, "no user bus: %s\n", std::strerror(-result));
        return EXIT_FAILURE;
    }

    // First listen, then read: so nothing is missed in between.
    result = sd_bus_match_signal(opened, nullptr, kName, kPath, "org.freedesktop.DBus.Properties",
                                 "PropertiesChanged", changed, nullptr);
    if (result < 0) {
        std::fprintf(stderr, "cannot listen: %s\n", std::strerror(-result));
        return EXIT_FAILURE;
    }
    print_property(opened, "Mode");
    print_property(opened, "WiFiClientState");

    while (result >= 0) {
        result = sd_bus_process(opened, nullptr);
        if (result == 0) {
            result = sd_bus_wait(opened, UINT64_MAX);
        }
    }
    return EXIT_FAILURE;
}
