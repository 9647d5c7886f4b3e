#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>

namespace client {

/** How the program ends; people's scripts depend on the numbers. */
enum class ExitStatus : std::uint8_t {
    Done = 0,
    Refused = 1,     /**< the daemon refused, or what was asked for did not work out */
    Usage = 2,       /**< the command line, or a value on it, cannot be right */
    Unreachable = 3, /**< no bus, no daemon on it, or it went away in the middle */
    TimedOut = 4,
    Silent = 5, /**< the daemon is there, and nothing is heard of the station daemon behind it */
};

/** Why a command did not do what it was asked to. */
struct Failure
{
    ExitStatus status = ExitStatus::Refused;
    /** For people: words, without the program's name and without a full stop. */
    std::string text;
    /** Name of the D-Bus error that the daemon or the bus answered with; empty when there was none. */
    std::string errorName;
    /** What the daemon itself said; empty when it said nothing. */
    std::string daemonText;
};

/** A value, or why there is none. */
template <typename T>
class Result
{
public:
    Result(T value) : held_(std::in_place_index<0>, std::move(value)) {}
    Result(Failure failure) : held_(std::in_place_index<1>, std::move(failure)) {}

    explicit operator bool() const { return held_.index() == 0; }
    T& value() { return std::get<0>(held_); }
    const T& value() const { return std::get<0>(held_); }
    const Failure& failure() const { return std::get<1>(held_); }

private:
    std::variant<T, Failure> held_;
};

/**
 * What a failed D-Bus call means.
 *
 * @param errorName name of the error reply, null or empty when there was no reply.
 * @param message its text, may be null.
 * @param result what the bus library returned: a negative errno.
 */
Failure failure_of_call(const char* errorName, const char* message, int result);

/** The connection to the bus could not be made or broke; `result` is a negative errno. */
Failure failure_of_bus(int result);

/** Nothing came within the time that the person allowed. */
Failure failure_of_time();

/** The daemon left the bus while it was being waited for. */
Failure failure_of_daemon_gone();

} // namespace client
