#pragma once

#include <deque>
#include <memory>
#include <string>

#include <systemd/sd-bus.h>

#include "lane_pool.hpp"
#include "read_ahead.hpp"
#include "supplicant.hpp"
#include "support/sd_bus_owners.hpp"

/**
 * One who calls the older name: a connection to the bus. Its calls are handed on in the order in which they
 * came, once the bus has said that it is root's.
 */
class Caller
{
public:
    /**
     * @param bus borrowed; the connection that its calls come in on
     * @param name its unique name
     * @param supplicant borrowed; whom its calls go to
     * @param lanes borrowed; where the lane that its calls take comes from
     * @param list borrowed; what it probably reads
     */
    Caller(sd_bus* bus, std::string name, Supplicant& supplicant, LanePool& lanes, const BssList& list);

    /** It has left: nobody waits for its answers any more. */
    ~Caller();

    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    /** Takes a call of it. */
    void take(sd_bus_message* call);

    /** wpa_supplicant has said something: what it has answered ahead of calls may hold no more. */
    void forget_answers() { ahead_.forget(); }

    /** The search for the station's object is over. @param error as Supplicant::Located has it */
    void station_located(sd_bus_message* error);

private:
    enum class Standing {
        Unknown,
        Asked,
        Root,
        Refused,
    };

    static int user_answered(sd_bus_message* answer, void* userdata, sd_bus_error* error);

    void ask_for_user();
    void judge(sd_bus_message* answer);
    void refuse_all();
    void go_on();
    bool hand_on(sd_bus_message* call);
    int hand_on(sd_bus_message* call, const char* path);

    sd_bus* bus_;
    std::string name_;
    Supplicant& supplicant_;
    LanePool& lanes_;
    std::unique_ptr<Lane> lane_; // from its first call that is handed on
    ReadAhead ahead_;
    Standing standing_ = Standing::Unknown;
    SlotPtr userCall_;
    std::deque<MessagePtr> waiting_;
    bool awaitsStation_ = false;
};
