#include "core/radio_state.hpp"

#include "radio/wifi_controller.hpp"

RadioState read_radio_state()
{
    if (wifi_get_enabled() == 0) {
        return RadioState::Off;
    }
    WifiMode mode = WifiMode::Host;
    if (wifi_get_mode(mode) == 0) {
        return RadioState::Unknown;
    }
    return mode == WifiMode::Host ? RadioState::Host : RadioState::Client;
}
