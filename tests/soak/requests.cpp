#include "requests.hpp"

#include <algorithm>
#include <stdexcept>

namespace {

constexpr const char* kService = "com.vantora.Network1";
constexpr const char* kPath = "/com/vantora/Network1";
constexpr const char* kInterface = "com.vantora.Network1.WiFi";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

constexpr const char* kRefusedWrite = "org.freedesktop.DBus.Error.AccessDenied: Operation not permitted";
constexpr const char* kNotClient = "org.freedesktop.DBus.Error.Failed: WiFi is not in client mode";
constexpr const char* kOff = "org.freedesktop.DBus.Error.Failed: Wifi is off";
constexpr const char* kUnknownMode = "org.freedesktop.DBus.Error.Failed: WiFi is in unknown mode";
constexpr const char* kConnectFailed = "org.freedesktop.DBus.Error.Failed: Failed to connect to AP";

MessagePtr method_call(sd_bus* bus, const char* interface, const char* member)
{
    sd_bus_message* message = nullptr;
    if (sd_bus_message_new_method_call(bus, &message, kService, kPath, interface, member) < 0) {
        throw std::runtime_error("a request could not be made");
    }
    return MessagePtr(message);
}

template <typename... Arguments>
MessagePtr filled(MessagePtr message, const char* types, Arguments... arguments)
{
    if (sd_bus_message_append(message.get(), types, arguments...) < 0) {
        throw std::runtime_error("a request could not be filled");
    }
    return message;
}

Request read(const char* property, int share)
{
    return {std::string("read ") + property,
            share,
            [property](sd_bus* bus, unsigned) {
                return filled(method_call(bus, kProperties, "Get"), "ss", kInterface, property);
            },
            {}};
}

MessagePtr write_text(sd_bus* bus, const char* property, const std::string& value)
{
    return filled(method_call(bus, kProperties, "Set"), "ssv", kInterface, property, "s", value.c_str());
}

std::vector<Request> quick_reads()
{
    return {read("WiFiAccessPointInitialised", 400), read("WiFiAvailableFrequencies", 150),
            read("MacAddress", 250)};
}

/** Each of these runs rfkill, iw or both, and some ask hostapd, wpa_supplicant or wpa_cli. */
std::vector<Request> reads_that_run_commands()
{
    return {
        read("WiFiState", 20),
        read("Mode", 20),
        read("WiFiFrequency", 10),
        read("SSID", 10),
        read("IPAddress", 10),
        read("WiFiSignal", 10),
        read("WiFiClientState", 10),
        read("ClientSSID", 5),
        read("WiFiConnectedClients", 10),
        read("AccessPoints", 10),
        {"read all properties",
         3,
         [](sd_bus* bus, unsigned) {
             return filled(method_call(bus, kProperties, "GetAll"), "s", kInterface);
         },
         {}},
    };
}

std::vector<Request> methods_and_writes()
{
    return {
        {"Scan", 10, [](sd_bus* bus, unsigned) { return method_call(bus, kInterface, "Scan"); }, {}},
        {"Connect",
         8,
         [](sd_bus* bus, unsigned) {
             return filled(method_call(bus, kInterface, "Connect"), "ss", "Casa Marisol", "quiet-harbour-42");
         },
         {kNotClient, kOff, kUnknownMode, kConnectFailed}},
        {"Disconnect",
         5,
         [](sd_bus* bus, unsigned) { return method_call(bus, kInterface, "Disconnect"); },
         {kNotClient, kOff, kUnknownMode, kConnectFailed}},
        // The same twice in a row, so that every other write changes nothing.
        {"write WiFiFrequency",
         4,
         [](sd_bus* bus, unsigned number) {
             return write_text(bus, "WiFiFrequency", number % 4 < 2 ? "5" : "2.4");
         },
         {kRefusedWrite}},
    };
}

/** What is answered with an error always. */
std::vector<Request> refused_requests()
{
    const auto refused = [](const char* label, int share, auto make, const std::string& error) {
        return Request{label, share, make, {error}, false};
    };
    return {
        refused(
            "write SSID, too long", 10,
            [](sd_bus* bus, unsigned) { return write_text(bus, "SSID", std::string(33, 'x')); },
            kRefusedWrite),
        refused(
            "write Mode, unknown", 10,
            [](sd_bus* bus, unsigned) { return write_text(bus, "Mode", "$(reboot)"); }, kRefusedWrite),
        refused(
            "write Mode, a number", 10,
            [](sd_bus* bus, unsigned) {
                return filled(method_call(bus, kProperties, "Set"), "ssv", kInterface, "Mode", "u", 1U);
            },
            "org.freedesktop.DBus.Error.InvalidArgs: Incorrect parameters for property 'Mode', expected "
            "'s', got 'u'."),
        refused(
            "read of no property", 15,
            [](sd_bus* bus, unsigned) {
                return filled(method_call(bus, kProperties, "Get"), "ss", kInterface, "Nothing");
            },
            "org.freedesktop.DBus.Error.UnknownProperty: Unknown interface com.vantora.Network1.WiFi or "
            "property Nothing."),
        refused(
            "call of no method", 10,
            [](sd_bus* bus, unsigned) { return method_call(bus, kInterface, "Reboot"); },
            "org.freedesktop.DBus.Error.UnknownMethod: Unknown method Reboot or interface "
            "com.vantora.Network1.WiFi."),
    };
}

std::vector<Request> put_together()
{
    std::vector<Request> all;
    for (const auto& part :
         {quick_reads(), reads_that_run_commands(), methods_and_writes(), refused_requests()}) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

} // namespace

const std::vector<Request>& all_requests()
{
    static const std::vector<Request> kRequests = put_together();
    return kRequests;
}

size_t RequestDeck::draw()
{
    if (cards_.empty()) {
        const auto& requests = all_requests();
        for (size_t kind = 0; kind < requests.size(); ++kind) {
            cards_.insert(cards_.end(), static_cast<size_t>(requests[kind].share), kind);
        }
        std::shuffle(cards_.begin(), cards_.end(), chance_);
    }
    const size_t kind = cards_.back();
    cards_.pop_back();
    return kind;
}
