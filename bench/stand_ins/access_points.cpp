// Takes the place of wpa_supplicant on the system bus, as far as the list of access points goes: as many BSS
// objects as its argument says, with the properties and the types that wpa_supplicant gives them. It owns
// both names; with "newer" behind the number only that one. With "late" it answers when whoever asks is
// asleep already, so that each answer is looked for once in vain: instructions are counted then, and must be
// the same ones.

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>

#include "bare_bus.hpp"
#include "names.hpp"

namespace {

constexpr std::array<uint8_t, 6> kBssid = {0x02, 0, 0, 0, 0x20, 0x01};
constexpr std::array<uint32_t, 8> kRates = {54'000'000, 48'000'000, 36'000'000, 24'000'000,
                                            18'000'000, 12'000'000, 9'000'000,  6'000'000};

/** About as many as a beacon has. */
constexpr std::array<uint8_t, 180> kElements = {};

constexpr std::chrono::milliseconds kLate(2);

int count = 0;
bool isLate = false;

std::string bss_prefix()
{
    return std::string(kStationPath) + "/BSSs/";
}

int append_bytes(sd_bus_message* message, const char* name, const void* bytes, size_t size)
{
    sd_bus_message_open_container(message, 'e', "sv");
    sd_bus_message_append_basic(message, 's', name);
    sd_bus_message_open_container(message, 'v', "ay");
    sd_bus_message_append_array(message, 'y', bytes, size);
    sd_bus_message_close_container(message);
    return sd_bus_message_close_container(message);
}

int append_rates(sd_bus_message* message)
{
    sd_bus_message_open_container(message, 'e', "sv");
    sd_bus_message_append_basic(message, 's', "Rates");
    sd_bus_message_open_container(message, 'v', "au");
    sd_bus_message_append_array(message, 'u', kRates.data(), sizeof(kRates));
    sd_bus_message_close_container(message);
    return sd_bus_message_close_container(message);
}

int append_bss(sd_bus_message* reply, int number)
{
    const std::string ssid = "network " + std::to_string(number);
    sd_bus_message_open_container(reply, 'a', "{sv}");
    append_bytes(reply, "BSSID", kBssid.data(), kBssid.size());
    append_bytes(reply, "SSID", ssid.data(), ssid.size());
    sd_bus_message_append(reply, "{sv}", "WPA", "a{sv}", 0);
    sd_bus_message_append(reply, "{sv}", "RSN", "a{sv}", 4, "KeyMgmt", "as", 1, "wpa-psk", "Pairwise", "as",
                          1, "ccmp", "Group", "s", "ccmp", "MgmtGroup", "s", "");
    sd_bus_message_append(reply, "{sv}", "WPS", "a{sv}", 1, "Type", "s", "");
    append_bytes(reply, "IEs", kElements.data(), kElements.size());
    sd_bus_message_append(reply, "{sv}", "Privacy", "b", 1);
    sd_bus_message_append(reply, "{sv}", "Mode", "s", "infrastructure");
    sd_bus_message_append(reply, "{sv}", "Frequency", "q", 2437);
    append_rates(reply);
    sd_bus_message_append(reply, "{sv}", "Signal", "n", -30 - number % 60);
    sd_bus_message_append(reply, "{sv}", "Age", "u", 3);
    return sd_bus_message_close_container(reply);
}

int append_list(sd_bus_message* reply)
{
    sd_bus_message_open_container(reply, 'v', "ao");
    sd_bus_message_open_container(reply, 'a', "o");
    for (int number = 0; number < count; ++number) {
        sd_bus_message_append_basic(reply, 'o', (bss_prefix() + std::to_string(number)).c_str());
    }
    sd_bus_message_close_container(reply);
    return sd_bus_message_close_container(reply);
}

int answer(sd_bus_message* call, void*, sd_bus_error*)
{
    const std::string path = sd_bus_message_get_path(call);
    sd_bus_message* created = nullptr;
    if (sd_bus_message_new_method_return(call, &created) < 0) {
        return -1;
    }
    const MessagePtr reply(created);
    if (sd_bus_message_is_method_call(call, kPropertiesInterface, "GetAll") > 0 &&
        path.starts_with(bss_prefix())) {
        append_bss(reply.get(), std::atoi(path.c_str() + bss_prefix().size()));
    } else if (sd_bus_message_is_method_call(call, kPropertiesInterface, "Get") > 0 && path == kStationPath) {
        append_list(reply.get());
    } else if (path == kStationRoot &&
               sd_bus_message_is_method_call(call, kStationName, "GetInterface") > 0) {
        sd_bus_message_append_basic(reply.get(), 'o', kStationPath);
    } else {
        return 0;
    }
    if (isLate) {
        std::this_thread::sleep_for(kLate);
    }
    return sd_bus_send(nullptr, reply.get(), nullptr);
}

} // namespace

int main(int argc, char** argv)
{
    const BareBusPtr bus = open_bare_bus(sd_bus_open_system);
    const std::string_view manner = argc == 3 ? argv[2] : "";
    const bool newerNameOnly = manner == "newer";
    isLate = manner == "late";
    if ((argc != 2 && !newerNameOnly && !isLate) || !bus) {
        return EXIT_FAILURE;
    }
    count = std::atoi(argv[1]);
    if (sd_bus_add_fallback(bus.get(), nullptr, kStationRoot, answer, nullptr) < 0 ||
        sd_bus_request_name(bus.get(), kStationName, 0) < 0 ||
        (!newerNameOnly && sd_bus_request_name(bus.get(), kOlderStationName, 0) < 0)) {
        return EXIT_FAILURE;
    }
    std::puts("ready");
    std::fflush(stdout);
    for (;;) {
        const int handled = sd_bus_process(bus.get(), nullptr);
        if (handled < 0 || (handled == 0 && sd_bus_wait(bus.get(), UINT64_MAX) < 0)) {
            return EXIT_FAILURE;
        }
    }
}
