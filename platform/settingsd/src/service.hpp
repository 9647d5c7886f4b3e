#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include <systemd/sd-bus.h>

#include "store.hpp"
#include "support/sd_bus_owners.hpp"

namespace settingsd {

/** Bus name and interface. */
inline constexpr const char* kServiceName = "com.vantora.common.Settings1";
/** The object with the reset methods; each section is an object below it. */
inline constexpr const char* kBasePath = "/com/vantora/common/Settings1";

/**
 * The settings on the bus: each setting a read-write property of its section's object, announced by the
 * standard PropertiesChanged, with its new value, when it really changes. A write is answered once it is on
 * the disk; a write or reset that cannot be stored is refused with org.freedesktop.DBus.Error.IOError, a
 * value that is not allowed with org.freedesktop.DBus.Error.InvalidArgs and the reason.
 *
 * Methods of the base object, none with a result:
 *
 *     ResetToDefaults(b all)              true: every setting; false: all but those that make the unit the
 *                                         owner's (the name given to the device)
 *     ResetSection(s section)             the settings of one section
 *     ResetSetting(s section, s setting)  one setting
 *
 * A section or setting that does not exist: org.freedesktop.DBus.Error.InvalidArgs.
 */
class SettingsService
{
public:
    /** Neither the bus nor the store is owned; both must outlive the service. */
    SettingsService(sd_bus* bus, SettingsStore& store);
    SettingsService(const SettingsService&) = delete;
    SettingsService& operator=(const SettingsService&) = delete;
    ~SettingsService() = default;

    /** Registers all objects. Returns a number that is not negative, or a negative errno. */
    int publish();

    /**
     * Loads the store. What is found odd is logged (WARNING), each line with the file's name before it.
     * Where the file cannot be read, or what is stored is not certain, this is tried again every second; what
     * then turns out different is announced. The bus must be attached to its event loop.
     *
     * Returns 0, -EBUSY when another process has taken the file, or another negative errno.
     */
    int load();

private:
    /** One section's object. */
    struct Section
    {
        SettingsService* service;
        std::string name;
        std::vector<sd_bus_vtable> vtable;
        SlotPtr slot;
    };

    int publish_base();
    int publish_section(const std::string& name);
    int reset(sd_bus_message* call, const std::vector<const Setting*>& settings, sd_bus_error* error);
    void announce(const std::vector<const Setting*>& changed);
    int refuse_to_store(sd_bus_error* error, const std::string& what, int r);
    void try_again_later();

    static int on_time_to_try_again(sd_event_source* source, std::uint64_t usec, void* userdata);
    static int on_get(sd_bus* bus, const char* path, const char* interface, const char* property,
                      sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int on_set(sd_bus* bus, const char* path, const char* interface, const char* property,
                      sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int on_reset_to_defaults(sd_bus_message* call, void* userdata, sd_bus_error* error);
    static int on_reset_section(sd_bus_message* call, void* userdata, sd_bus_error* error);
    static int on_reset_setting(sd_bus_message* call, void* userdata, sd_bus_error* error);

    sd_bus* bus_;
    SettingsStore& store_;
    std::list<Section> sections_;
    SlotPtr base_;
    SlotPtr objectManager_;
    EventSourcePtr anotherTry_;         ///< armed while something is to be tried again
    std::vector<std::string> reported_; ///< what the last try found, so that the log tells it once
};

} // namespace settingsd
