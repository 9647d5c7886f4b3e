#include "listeners/wpa_supplicant_socket_listener.hpp"

#include <syslog.h>

namespace {

constexpr const char* kSocketDirectory = "/var/run/wpa_supplicant";

} // namespace

void WpaSupplicantSocketListner::SignalEvent(const char*)
{
    syslog(LOG_INFO, "HostapdSocketListner::%s", "SignalEvent");
}

void WpaSupplicantSocketListner::Start()
{
    start_listening(kSocketDirectory);
}

WpaCtrlPtr WpaSupplicantSocketListner::ConnectSocket(const std::string& interface)
{
    return open_control_socket(kSocketDirectory, interface);
}
