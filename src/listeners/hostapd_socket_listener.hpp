#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "listeners/wpa_socket_listener.hpp"
#include "utils/guarded_signal.hpp"

/** Turns the events of hostapd's control socket for wlan0 into signals, which are emitted on its thread. */
class HostapdSocketListner : public WpaSocketListener
{
public:
    /**
     * Acts on the first of these texts that the message contains: "AP-STA-CONNECTED", "AP-STA-DISCONNECTED",
     * "AP-ENABLED", "AP-DISABLED", "CTRL-EVENT-T". The station text is all that follows the message's first
     * blank, or the whole message when it has none. A null message is ignored. Of stations that have left,
     * the latest 2,007 are remembered.
     */
    void SignalEvent(const char* message) override;

    void Start() override;

    /** Stop, then forget the disconnected stations. Whether the access point is enabled stays known. */
    void Reset();

    /**
     * After hostapd has said that it ends: goes on listening until its socket has been replaced, or for a
     * second, then Reset and Start. Where the listener follows the successor already, because it was
     * restarted meanwhile, only the disconnected stations are forgotten: connecting anew would lose what that
     * one says in between.
     */
    void follow_successor_of_terminated();

    /**
     * Opens a connection to hostapd's control socket in /var/run/hostapd, after waiting up to two seconds for
     * it to appear.
     *
     * @return the connection, or null
     */
    static WpaCtrlPtr ConnectSocket(const std::string& interface);

    /** True after "AP-ENABLED", false after "AP-DISABLED" and before either. */
    bool IsApEnabled() const { return apEnabled_; }

    /**
     * Tells whether a station that hostapd still lists has disconnected already.
     *
     * @param record the beginning of a reply to STA-FIRST or STA-NEXT, which starts with the address; may be
     * null
     * @return 0 for an address that has not disconnected; 1 for one that has, and for a text that holds none
     */
    int IsStationDisconnected(const char* record) const;

    /** Forgets every mention of an address. */
    void RemoveDisconnectedStation(const std::string& address);

    GuardedSignal<bool> ApEnabledSignal;
    GuardedSignal<std::string> StationConnectedSignal;
    GuardedSignal<std::string> StationDisconnectedSignal;
    GuardedSignal<> TerminatingSignal;

private:
    void forget_disconnected_stations();

    std::vector<std::string> disconnectedStations_;
    mutable std::mutex stationsMutex_; // the thread adds and removes, the main loop counts and forgets
    std::atomic<bool> apEnabled_ = false;
};

/** The process's one listener; created before main runs and alive until the process ends. */
std::shared_ptr<HostapdSocketListner> hostapd_listener();
