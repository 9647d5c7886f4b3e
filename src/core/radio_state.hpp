#pragma once

/** The state of the radio as the D-Bus face sees it, read anew each time. */
enum class RadioState {
    Off,
    Unknown, ///< on, in a mode that can not be read
    Host,
    Client,
};

/** Reads power and, only when it is on, mode. Logs nothing. */
RadioState read_radio_state();
