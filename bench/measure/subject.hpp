#pragma once

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

#include "bare_bus.hpp"

/** Something that is done again and again, and timed each time. */
class Subject
{
public:
    using Clock = std::chrono::steady_clock;

    Subject() = default;
    virtual ~Subject() = default;
    Subject(const Subject&) = delete;
    Subject& operator=(const Subject&) = delete;

    /**
     * Does it once.
     *
     * @return how long it took, without what had to be prepared or cleared away
     */
    virtual Clock::duration run() = 0;
};

/** What went wrong; the measurement is worth nothing then, so that nobody catches it but main. */
class MeasuringFailed : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/** Throws when a result of libsystemd tells of an error. */
inline int check(int result, const char* what)
{
    if (result < 0) {
        throw MeasuringFailed(std::string(what) + ": " + std::to_string(result));
    }
    return result;
}

/** Throws when a connection could not be opened. */
inline BareBusPtr check(BareBusPtr bus)
{
    if (!bus) {
        throw MeasuringFailed("a bus can not be opened");
    }
    return bus;
}

/** Reads one property of the network object of a service, over one connection to the user bus. */
std::unique_ptr<Subject> make_property_read(const std::string& service, const std::string& property);

/** Reads all properties of the network object of a service, over one connection to the user bus. */
std::unique_ptr<Subject> make_read_of_all(const std::string& service);

/**
 * Runs the daemon's commands through popen(3): a letter for each, "p" the radio's power, "m" its mode, "s"
 * its transmit power, and "h" hostapd's first station, over a control connection of its own.
 */
std::unique_ptr<Subject> make_bare_commands(const std::string& letters);

/**
 * The commands and calls behind the list of access points: power, mode, the list of BSSs, GetAll of each in
 * turn.
 *
 * @param reading whether every value of the answers is read, though not kept
 */
std::unique_ptr<Subject> make_bare_access_points(bool reading);

/** Starts a program and waits until it says that it is ready. Its end is not timed. */
std::unique_ptr<Subject> make_start(const std::string& program);

/** Has hostapd report a station, and waits until the daemon announces the number of stations as changed. */
std::unique_ptr<Subject> make_station_event();

/** Has hostapd report that 20 stations leave, all at once, and waits for one announcement for each. */
std::unique_ptr<Subject> make_stations_leave();

/** Changes a setting that nobody follows, so that the settings daemon stores it. */
std::unique_ptr<Subject> make_setting_write();

/** The operations on files that storing a setting safely needs, with a text of the same length, and nothing
 * else. */
std::unique_ptr<Subject> make_bare_file_write();

/**
 * Runs a program to its end, its output going nowhere.
 *
 * @param command the program's path and its arguments, between spaces
 */
std::unique_ptr<Subject> make_run(const std::string& command);
