#include "listeners/hostapd_socket_listener.hpp"

#include <algorithm>
#include <string_view>

namespace {

constexpr const char* kSocketDirectory = "/var/run/hostapd";

/**
 * How many stations that have left are remembered: as many as hostapd can list at a time. Phones show a new
 * address at each visit, so without a limit the list would grow for as long as the access point is up.
 */
constexpr size_t kMaxDisconnectedStations = 2007;

const auto kListener = std::make_shared<HostapdSocketListner>();

/** What follows the first blank of an event; the whole event when it has none. */
std::string station_text(std::string_view event)
{
    return std::string(event.substr(event.find(' ') + 1));
}

} // namespace

std::shared_ptr<HostapdSocketListner> hostapd_listener()
{
    return kListener;
}

void HostapdSocketListner::SignalEvent(const char* message)
{
    if (message == nullptr) {
        return;
    }
    const std::string_view event(message);
    const auto contains = [event](std::string_view text) {
        return event.find(text) != std::string_view::npos;
    };

    if (contains("AP-STA-CONNECTED")) {
        const std::string station = station_text(event);
        RemoveDisconnectedStation(station);
        StationConnectedSignal.emit(station);
    } else if (contains("AP-STA-DISCONNECTED")) {
        const std::string station = station_text(event);
        {
            const std::lock_guard lock(stationsMutex_);
            disconnectedStations_.push_back(station);
            if (disconnectedStations_.size() > kMaxDisconnectedStations) {
                disconnectedStations_.erase(disconnectedStations_.begin());
            }
        }
        StationDisconnectedSignal.emit(station);
    } else if (contains("AP-ENABLED")) {
        apEnabled_ = true;
        ApEnabledSignal.emit(true);
    } else if (contains("AP-DISABLED")) {
        apEnabled_ = false;
        ApEnabledSignal.emit(false);
    } else if (contains("CTRL-EVENT-T")) {
        expect_successor();
        TerminatingSignal.emit();
    }
}

void HostapdSocketListner::Start()
{
    start_listening(kSocketDirectory);
}

void HostapdSocketListner::Reset()
{
    Stop();
    forget_disconnected_stations();
}

void HostapdSocketListner::follow_successor_of_terminated()
{
    if (follows_successor()) {
        forget_disconnected_stations();
        return;
    }
    retire();
    Reset();
    Start();
}

void HostapdSocketListner::forget_disconnected_stations()
{
    const std::lock_guard lock(stationsMutex_);
    disconnectedStations_.clear();
}

WpaCtrlPtr HostapdSocketListner::ConnectSocket(const std::string& interface)
{
    return open_control_socket(kSocketDirectory, interface);
}

int HostapdSocketListner::IsStationDisconnected(const char* record) const
{
    constexpr size_t kLastByteDigits = 2;

    if (record == nullptr) {
        return 1;
    }
    const std::string_view text(record);
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos || text.size() - colon - 1 < kLastByteDigits) {
        return 1;
    }
    const std::string_view address = text.substr(0, colon + 1 + kLastByteDigits);
    const std::lock_guard lock(stationsMutex_);
    return std::find(disconnectedStations_.begin(), disconnectedStations_.end(), address) !=
                   disconnectedStations_.end()
               ? 1
               : 0;
}

void HostapdSocketListner::RemoveDisconnectedStation(const std::string& address)
{
    const std::lock_guard lock(stationsMutex_);
    std::erase(disconnectedStations_, address);
}
