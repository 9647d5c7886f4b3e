#include <array>
#include <cstdint>
#include <cstdio>

#include <sys/socket.h>
#include <sys/un.h>

#include "measure/subject.hpp"
#include "names.hpp"
#include "support/unique_fd.hpp"

namespace {

constexpr int kStations = 20;
constexpr uint64_t kPatienceUsec = 300'000'000;

/** Says on hostapd's behalf that stations come and go, and hears what the daemon announces of it. */
class StationSubject : public Subject
{
public:
    StationSubject() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        check(sd_bus_match_signal(bus_.get(), nullptr, kDaemon, kObjectPath, kPropertiesInterface,
                                  "PropertiesChanged", on_change, this),
              "watch the daemon");
    }

protected:
    void report(const char* what, int station)
    {
        std::array<char, 64> event{};
        const int length = std::snprintf(event.data(), event.size(), "%sAP-STA-%s 02:00:00:00:20:%02x",
                                         kEventRequest, what, station);
        sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", kHostapdSocket);
        if (sendto(socket_.get(), event.data(), static_cast<size_t>(length), 0,
                   reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != length) {
            throw MeasuringFailed("the stand-in for hostapd is not there");
        }
    }

    void wait_for_announcements(int wanted)
    {
        while (announced_ < wanted) {
            const int handled = check(sd_bus_process(bus_.get(), nullptr), "process the bus");
            if (handled == 0 && check(sd_bus_wait(bus_.get(), kPatienceUsec), "wait for the bus") == 0) {
                throw MeasuringFailed("no signal for a station");
            }
        }
        announced_ = 0;
    }

private:
    static int on_change(sd_bus_message*, void* userdata, sd_bus_error*)
    {
        ++static_cast<StationSubject*>(userdata)->announced_;
        return 0;
    }

    UniqueFd socket_;
    BareBusPtr bus_ = check(open_bare_bus(sd_bus_open_user));
    int announced_ = 0;
};

/** A few stations come and go, one at a time. */
class StationEvent : public StationSubject
{
public:
    Clock::duration run() override
    {
        const int turn = turns_++;
        const bool leaves = turn / kStations % 2 != 0;
        const Clock::time_point begin = Clock::now();
        report(leaves ? "DISCONNECTED" : "CONNECTED", turn % kStations);
        wait_for_announcements(1);
        return Clock::now() - begin;
    }

private:
    int turns_ = 0;
};

class StationsLeave : public StationSubject
{
public:
    Clock::duration run() override
    {
        const Clock::time_point begin = Clock::now();
        for (int station = 0; station < kStations; ++station) {
            report("DISCONNECTED", station);
        }
        wait_for_announcements(kStations);
        return Clock::now() - begin;
    }
};

} // namespace

std::unique_ptr<Subject> make_station_event()
{
    return std::make_unique<StationEvent>();
}

std::unique_ptr<Subject> make_stations_leave()
{
    return std::make_unique<StationsLeave>();
}
