#pragma once

#include <cstdint>

/** What the Wi-Fi interface is: an access point of its own, or a station of somebody else's. */
enum class WifiMode : uint32_t {
    Host = 0,
    Client = 1,
};

/** Band of the access point. */
enum class WifiBand : uint32_t {
    Band2_4GHz = 0,
    Band5GHz = 1,
};
