#pragma once

#include <functional>
#include <string>

#include <systemd/sd-bus.h>

#include "support/sd_bus_owners.hpp"

/** Who wpa_supplicant is at present. */
class SupplicantWatch
{
public:
    /** Called with its unique name, which is empty when it is not there. */
    using Changed = std::function<void(const std::string& owner)>;

    /** @param bus borrowed; the connection to watch over */
    explicit SupplicantWatch(sd_bus* bus) : bus_(bus) {}

    SupplicantWatch(const SupplicantWatch&) = delete;
    SupplicantWatch& operator=(const SupplicantWatch&) = delete;

    /**
     * Begins to watch.
     *
     * @param known called once, when it is known whether it is there
     * @param changed called whenever it has come, gone, or another one has taken its place
     * @return 0 or a positive number, or a negative errno
     */
    int begin(std::function<void()> known, Changed changed);

private:
    static int name_owner_answered(sd_bus_message* answer, void* userdata, sd_bus_error* error);
    static int owner_changed(sd_bus_message* signal, void* userdata, sd_bus_error* error);

    void set_owner(const char* owner);

    sd_bus* bus_;
    std::function<void()> known_;
    Changed changed_;
    std::string owner_;
    SlotPtr match_;
    SlotPtr call_;
};
