#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include <systemd/sd-bus.h>

#include "bss_list.hpp"
#include "support/sd_bus_owners.hpp"

/**
 * Makes a list of access points bearable: whoever reads one asks for one access point after the other and
 * waits for each answer, and through this program each way is twice as long. So once a caller reads the list
 * in its order, the next few are asked for before it does.
 *
 * An answer that is there ahead of its call is given to that call only when nothing can have changed since
 * for all that the caller knows: the caller has called nothing else, wpa_supplicant has sent no signal, and
 * hardly any time has passed. Otherwise it is dropped, and the call handed on like any other.
 */
class ReadAhead
{
public:
    /** @param list borrowed */
    explicit ReadAhead(const BssList& list) : list_(list) {}

    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    /**
     * Takes a call, if it is for an access point that has been asked for already.
     *
     * @param call borrowed; a received call that expects an answer
     * @return whether it is answered, or will be
     */
    bool take(sd_bus_message* call);

    /**
     * Asks for what probably comes next, after a call that was taken here or handed on.
     *
     * @param bus borrowed; the connection to ask over
     * @param destination the unique name of who is asked
     */
    void go_on(sd_bus* bus, const char* destination, sd_bus_message* call);

    /** Something may have changed: what is there ahead of its call is dropped. */
    void forget();

    /** Whether no answer is awaited. */
    bool idle() const;

private:
    struct Asked
    {
        ReadAhead* ahead;
        SlotPtr slot;      // while the answer is awaited
        MessagePtr answer; // from then on
        MessagePtr call;   // that has come before its answer
        uint64_t since = 0;
    };

    static int answered(sd_bus_message* answer, void* userdata, sd_bus_error* error);

    bool ask(sd_bus* bus, const char* destination, const std::string& path);

    const BssList& list_;
    std::map<std::string, Asked, std::less<>> asked_; // by object path
    std::optional<size_t> expected_;                  // position of the call that would come next
    size_t askedUpTo_ = 0;                            // position after the last one asked for
};
