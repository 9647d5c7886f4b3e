#include "utils/interface_queries.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <span>
#include <string>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netpacket/packet.h>
#include <syslog.h>

#include "support/sd_bus_owners.hpp"
#include "utils/pause.hpp"
#include "utils/shell_process.hpp"

namespace {

using InterfaceList = std::unique_ptr<ifaddrs, ReleaseWith<freeifaddrs>>;

constexpr size_t kMacAddressLength = 17;
constexpr size_t kPowerLineLimit = 255;
constexpr size_t kCommandLineLimit = 499;
constexpr long kHalfASecondNsec = 500'000'000;

InterfaceList list_interfaces()
{
    ifaddrs* list = nullptr;
    return InterfaceList(getifaddrs(&list) == 0 ? list : nullptr);
}

/** The first entry of the list with this name and an address of this family, or null. */
const ifaddrs* find_address(const InterfaceList& list, const char* interface, int family)
{
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        if (std::strcmp(entry->ifa_name, interface) == 0 && entry->ifa_addr != nullptr &&
            entry->ifa_addr->sa_family == family) {
            return entry;
        }
    }
    return nullptr;
}

} // namespace

int utils_get_mac_address(const char* interface, char* buffer)
{
    const InterfaceList list = list_interfaces();
    const ifaddrs* entry = find_address(list, interface, AF_PACKET);
    if (entry == nullptr) {
        return 0;
    }
    sockaddr_ll address{};
    std::memcpy(&address, entry->ifa_addr, sizeof(address));

    // A longer one, as of InfiniBand, is given up before the end of sll_addr.
    const std::span<const unsigned char> bytes(address.sll_addr, sizeof(address.sll_addr));
    std::string text;
    for (size_t i = 0; i < address.sll_halen && text.size() <= kMacAddressLength; ++i) {
        std::array<char, sizeof("ff:")> piece{};
        std::snprintf(piece.data(), piece.size(), i + 1 < address.sll_halen ? "%02x:" : "%02x", bytes[i]);
        text += piece.data();
    }
    if (text.size() != kMacAddressLength) {
        syslog(LOG_ERR, "%s: Failed to get MAC address for interface %s", "utils_get_mac_address", interface);
        return 0;
    }
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return 1;
}

int utils_get_ip_address(const char* interface, char* buffer)
{
    int found = 0;
    in_addr ip{};
    {
        const InterfaceList list = list_interfaces();
        if (const ifaddrs* entry = find_address(list, interface, AF_INET)) {
            sockaddr_in address{};
            std::memcpy(&address, entry->ifa_addr, sizeof(address));
            ip = address.sin_addr;
            found = 1;
        }
    }
    if (found != 0) {
        inet_ntop(AF_INET, &ip, buffer, kIpAddressBufferSize); // into which every address fits
    }
    syslog(LOG_INFO, "utils_get_ip_address: addr_found: %d", found);
    return found;
}

bool utils_get_signal_strength(char* buffer)
{
    constexpr const char* kFunction = "utils_get_signal_strength";

    std::string line;
    {
        ShellPipe pipe("iw wlan0 info | egrep txpower");
        pipe.read_line(line, kPowerLineLimit);
    }
    if (line.empty()) {
        syslog(LOG_ERR, "[Utils] %s: could not read AP Tx Power, retrying...", kFunction);
        pause_for(0, kHalfASecondNsec);
        syslog(LOG_ERR, "[Utils] %s: could not read AP Tx Power, timed out.", kFunction);
        return false;
    }
    const char* power = std::strstr(line.c_str(), "txpower ");
    if (power == nullptr) {
        return true;
    }
    std::copy_n(power, std::strlen(power), buffer);
    if (char* unit = std::strstr(buffer, " dBm")) {
        unit[std::strlen(" dB")] = '\0';
    }
    return true;
}

bool utils_is_nfs_root()
{
    std::ifstream file("/proc/cmdline");
    if (!file) {
        syslog(LOG_ERR, "Failed to open /proc/cmdline");
        return false;
    }
    return utils_names_nfs_root(file);
}

bool utils_names_nfs_root(std::istream& commandLine)
{
    std::string line;
    std::getline(commandLine, line);
    line.resize(std::min(line.size(), kCommandLineLimit));
    return line.find("root=/dev/nfs") != std::string::npos;
}
