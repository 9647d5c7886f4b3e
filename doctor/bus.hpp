#pragma once

#include <chrono>
#include <set>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "patience.hpp"
#include "support/sd_bus_owners.hpp"

namespace doctor {

using Json = nlohmann::json;

/** What a call on a bus came to. */
struct Reply
{
    enum class Kind {
        Answered,
        Refused,     /**< an error came back: `error` and `text` */
        Silent,      /**< no answer within the time for it */
        Unreachable, /**< there is no bus, or it does not let us in: `text` */
    };

    Kind kind = Kind::Unreachable;
    Json values =
        Json::array(); /**< the values of the answer; a variant is its value, a dictionary an object */
    std::string error; /**< the name of the error */
    std::string text;  /**< for people, as it came: why there is no answer */

    bool answered() const { return kind == Kind::Answered; }

    /** The first value; null when there is none. */
    const Json& value() const
    {
        static const Json kNothing;
        return answered() && !values.empty() ? values.front() : kNothing;
    }

    /** The first value as text; empty when it is none. */
    std::string word() const { return value().is_string() ? value().get<std::string>() : std::string(); }
};

/** Whom a call goes to. */
struct Target
{
    std::string name;
    std::string path;
    std::string interface;
};

/** A message bus: tests play one. */
class Bus
{
public:
    Bus() = default;
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    virtual ~Bus() = default;

    /**
     * Calls a method and waits for the answer, never longer than a few seconds. Whom nobody is gets nobody
     * started: looking must not change what is there.
     *
     * @param signature of the arguments: any row of "s", "b" and "as"
     */
    virtual Reply call(const Target& target, const std::string& member, const std::string& signature = "",
                       const Json& arguments = Json::array()) = 0;

    /** The value of a property, as the first value of the reply. */
    Reply property(const Target& target, const std::string& name);

    /** All properties of the interface, as an object. */
    Reply properties(const Target& target);

    /** Who owns a name, as the bus calls it: answered with an empty text when nobody does. */
    Reply owner(const std::string& name);
};

/** A real one, opened when it is first called. */
class RealBus : public Bus
{
public:
    static constexpr std::chrono::seconds kLongest{5};

    /** @param address the bus's own; the system bus where it is empty */
    RealBus(std::string address, const Patience& patience) : address_(std::move(address)), patience_(patience)
    {
    }

    Reply call(const Target& target, const std::string& member, const std::string& signature,
               const Json& arguments) override;

private:
    void open();

    std::string address_;
    const Patience& patience_;
    bool opened_ = false;
    int failure_ = 0;            // why there is no connection, as a negative errno
    std::set<std::string> hung_; // whom there is no point in asking again
    BusPtr bus_;
};

/** Where root's user bus is: where the environment says, unless that is another user's own. */
std::string roots_bus_address();

} // namespace doctor
