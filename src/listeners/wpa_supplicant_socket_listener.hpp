#pragma once

#include "listeners/wpa_socket_listener.hpp"

/** Attaches to wpa_supplicant's control socket for wlan0 and ignores its events; for diagnosis only. */
class WpaSupplicantSocketListner : public WpaSocketListener
{
public:
    /** Logs "HostapdSocketListner::%s" (INFO) and ignores the message. */
    void SignalEvent(const char* message) override;

    void Start() override;

    /** As HostapdSocketListner::ConnectSocket, in /var/run/wpa_supplicant. */
    static WpaCtrlPtr ConnectSocket(const std::string& interface);
};
