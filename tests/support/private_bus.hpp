#pragma once

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <systemd/sd-bus.h>

#include "child_process.hpp"
#include "support/sd_bus_owners.hpp"
#include "support/unique_fd.hpp"
#include "temp_folder.hpp"

namespace testing_support {

/** Which of the two buses of this process a private bus stands in for. */
enum class BusRole { User, System, Both };

/** A dbus-daemon of the test's own, which this process (and its children) take for the user or system bus. */
class PrivateBus
{
public:
    /** @param rules further ones of the bus daemon's policy, which hold against those that allow everything
     */
    explicit PrivateBus(BusRole role = BusRole::Both, const std::string& rules = "")
    {
        rule(rules);
        if (role != BusRole::System) {
            ::setenv("DBUS_SESSION_BUS_ADDRESS", address().c_str(), 1);
        }
        if (role != BusRole::User) {
            ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address().c_str(), 1);
        }
        start();
    }

    std::string address() const { return "unix:path=" + folder_.file("bus"); }

    /** The rules beside those that allow everything, from the next start on. */
    void rule(const std::string& rules) const
    {
        folder_.write("bus.conf", "<busconfig><type>session</type><listen>" + address() +
                                      "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                                      "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                                      "<allow eavesdrop=\"true\"/><allow own=\"*\"/>" +
                                      rules + "</policy></busconfig>");
    }

    /** Starts the bus daemon and waits until it takes connections. */
    void start()
    {
        int ends[2] = {-1, -1};
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe failed");
        }
        const UniqueFd reading(ends[0]);
        UniqueFd writing(ends[1]);
        daemon_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{"dbus-daemon", "--config-file=" + folder_.file("bus.conf"), "--nofork",
                                     "--nopidfile", "--nosyslog", "--print-address=1"},
            [&writing, log = folder_.file("bus.log")] {
                ::dup2(writing.get(), STDOUT_FILENO);
                ::dup2(::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
            });
        writing.reset();
        char text[256];
        ssize_t size = 0;
        while ((size = ::read(reading.get(), text, sizeof text)) < 0 && errno == EINTR) {
        }
        if (size <= 0) {
            throw std::runtime_error("dbus-daemon did not start");
        }
    }

    /** Ends the bus daemon; every connection is lost. */
    void stop()
    {
        daemon_.reset();
        std::filesystem::remove(folder_.file("bus"));
    }

    /** A new connection, as any program has one. */
    BusPtr connect() const
    {
        sd_bus* bus = nullptr;
        int r = sd_bus_new(&bus);
        BusPtr connection(bus);
        if (r < 0 || sd_bus_set_address(bus, address().c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
            sd_bus_start(bus) < 0 || sd_bus_get_unique_name(bus, &ignored_) < 0) {
            throw std::runtime_error("cannot connect to the private bus");
        }
        return connection;
    }

private:
    TempFolder folder_;
    std::unique_ptr<ChildProcess> daemon_;
    mutable const char* ignored_ = nullptr;
};

/** Waits until the bus daemon has handled everything that was sent on this connection. */
inline void settle(sd_bus* bus)
{
    sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
                       nullptr, nullptr, nullptr);
}

} // namespace testing_support
