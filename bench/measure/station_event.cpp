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
constexpr uint64_t kPatienceUsec = 20'000'000;

class StationEvent : public Subject
{
public:
    StationEvent() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        check(sd_bus_match_signal(bus_.get(), nullptr, kDaemon, kObjectPath, kPropertiesInterface,
                                  "PropertiesChanged", on_change, this),
              "watch the daemon");
    }

    Clock::duration run() override
    {
        announced_ = false;
        const Clock::time_point begin = Clock::now();
        report_station();
        while (!announced_) {
            const int handled = check(sd_bus_process(bus_.get(), nullptr), "process the bus");
            if (handled == 0 && check(sd_bus_wait(bus_.get(), kPatienceUsec), "wait for the bus") == 0) {
                throw MeasuringFailed("no signal for a station");
            }
        }
        return Clock::now() - begin;
    }

private:
    static int on_change(sd_bus_message*, void* userdata, sd_bus_error*)
    {
        static_cast<StationEvent*>(userdata)->announced_ = true;
        return 0;
    }

    /** A few stations come and go. */
    void report_station()
    {
        const int turn = turns_++;
        const bool leaves = turn / kStations % 2 != 0;
        std::array<char, 64> event{};
        const int length =
            std::snprintf(event.data(), event.size(), "%sAP-STA-%s 02:00:00:00:20:%02x", kEventRequest,
                          leaves ? "DISCONNECTED" : "CONNECTED", turn % kStations);
        sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", kHostapdSocket);
        if (sendto(socket_.get(), event.data(), static_cast<size_t>(length), 0,
                   reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != length) {
            throw MeasuringFailed("the stand-in for hostapd is not there");
        }
    }

    UniqueFd socket_;
    BareBusPtr bus_ = check(open_bare_bus(sd_bus_open_user));
    bool announced_ = false;
    int turns_ = 0;
};

} // namespace

std::unique_ptr<Subject> make_station_event()
{
    return std::make_unique<StationEvent>();
}
