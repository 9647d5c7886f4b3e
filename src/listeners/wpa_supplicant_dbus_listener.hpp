#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sigc++/sigc++.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include "dbus-helper/dbus_listener.hpp"

/**
 * Follows wpa_supplicant's own PropertiesChanged signals on the system bus: keeps the last state, restarts
 * the DHCP client when an association completes, and recognises a refused passphrase. All of it, the slots of
 * its signals included, runs on the loop's thread.
 */
class WpaSupplicantDbusListener : public DbusHelper::DbusListener
{
public:
    /** @param event the loop on which the signals will be handled */
    explicit WpaSupplicantDbusListener(sd_event* event);

    /**
     * Connects and starts to listen.
     *
     * @return 0, or a negative errno
     *
     * Logs "[WPA Listener] Start. %p", "[WPA Listener] Start listening" and "[WPA Listener] Start completed"
     * (INFO), "%s: Could not connect to DBus: %d" and "%s: Could not listen to signal: %d" (ERR).
     */
    int32_t Start();

    /**
     * Disconnects.
     *
     * @return always 0
     *
     * Logs "[WPA Listener] Stop" (INFO).
     */
    int32_t Stop();

    /** The last state that was handed to StateChangeHandler; empty before the first report. */
    std::string GetState() const { return currentState_; }

    /**
     * Handles one notification; a message that can not be parsed is ignored. A "State", "CurrentBSS" or
     * "BSSs" of another type than wpa_supplicant's raises std::bad_any_cast.
     *
     * @param userdata the listener
     * @return always 0
     */
    static int PropertyChangedCallback(sd_bus_message* message, void* userdata, sd_bus_error* error);

    /**
     * Remembers the state, and emits stateChanged when it is "completed", "disconnected" or "failed".
     *
     * Logs "%s: Emitting state change: state = %s ssid = %s" (INFO) before it emits.
     */
    void StateChangeHandler(const std::string& state, const std::string& ssid);

    /** The SSID bytes of a BSS object; an empty string for "/", and for whatever goes wrong. Logs nothing. */
    static std::string GetBssSsid(const std::string& path);

    /** The new state, and the SSID of the access point when the same notification told it. */
    sigc::signal<void, const std::string&, const std::string&> stateChanged;

    /** The object paths of all BSSs that wpa_supplicant knows now. */
    sigc::signal<void, const std::vector<std::string>&> bssListChanged;

    /** An association ended in the 4-way handshake: in practice a wrong passphrase. */
    sigc::signal<void> connectFailed;

private:
    /** Notes who reports. Returns false when it is another process than the last time, which knows nothing of
     * an attempt that the last one was in the middle of. */
    bool take_reporter(const char* sender);

    void handle_state_property(std::string& newState, const std::string& oldState, bool sameReporter);

    std::string currentState_;
    std::string reporter_; // the bus name that the process alone has, which reported last
};
