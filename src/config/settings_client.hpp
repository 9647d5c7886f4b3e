#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include <sigc++/sigc++.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include "dbus-helper/dbus_listener.hpp"
#include "dbus-helper/sdbus_utils.hpp"

namespace Settingsd {

/** Settings of one section: key to (D-Bus type signature, value: bool for "b", std::string for "s"). */
using PropertyMap = sdbus_utils::TypedPropertyMap;

/** Emitted with the changed settings of one section. */
using SectionSignal = sigc::signal<void, const PropertyMap&>;

/** Emitted with a section's name and its changed settings, for every section. */
using AllSectionsSignal = sigc::signal<void, const std::string&, const PropertyMap&>;

constexpr size_t kSectionCount = 29;

/**
 * Client of the settings daemon "com.vantora.common.Settings1" on the user bus, which publishes one object
 * per section with its settings as properties.
 *
 * All operations return 0 or a positive number on success and a negative errno on failure. The static ones
 * open a connection of their own for the one call and may be used without an instance; nothing is cached or
 * retried.
 */
class SettingsDaemonDbusHandler : public DbusHelper::DbusListener
{
public:
    /** @param event the loop on which notifications will be handled */
    explicit SettingsDaemonDbusHandler(sd_event* event);

    /**
     * Reads one setting; T is bool or std::string.
     *
     * @param value untouched on failure
     *
     * Logs "%s: ERROR sdbus_utils::GetProperty %s failed %s" (ERR).
     */
    template <typename T>
    static int32_t GetSetting(const std::string& section, const std::string& key, T& value);

    /**
     * Writes one setting; T is bool or std::string.
     *
     * Logs "%s: ERROR sdbus_utils::SetProperty %s failed %s" (ERR).
     */
    template <typename T>
    static int32_t SetSetting(const std::string& section, const std::string& key, T value);

    /**
     * Asks the daemon to reset everything; the flag is the daemon's. The three resets log their own name
     * (INFO), and "%s:sd_bus_call_method call failed (r = %d)" (ERR).
     */
    static int32_t ResetToDefaults(bool flag);

    /** Asks the daemon to reset one section. */
    static int32_t ResetSection(const std::string& section);

    /** Asks the daemon to reset one setting. */
    static int32_t ResetSetting(const std::string& section, const std::string& key);

    /** Reads all settings of a section. Logs nothing. */
    static int32_t GetSection(const std::string& section, PropertyMap& settings);

    /**
     * Connects and starts to follow the daemon's change notifications.
     *
     * @return the results of connecting and registering, combined by bitwise OR; anything but 0, positive
     *         numbers included, leaves the instance disconnected
     *
     * Logs "%s: Failed to connect to dbus", "%s: Failed to register %s signal" and
     * "LibDbusHelper::Storage: Failed to init signal listeners" (ERR).
     */
    int32_t Listen();

    /**
     * Handles one notification: the section is what follows the last "/" of the message's path.
     *
     * @param userdata the instance
     * @return 0, or -1 for a malformed notification, which is logged (ERR) and dropped
     */
    static int32_t PropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);

    /** The change signal of a section, or null when the section is not in the table. */
    SectionSignal* section_signal(const std::string& section);

    AllSectionsSignal allSectionsChanged;

private:
    std::array<SectionSignal, kSectionCount> sectionSignals_;

    // Ordered by the address of the name; a copy of a signal shares its slots with the original.
    std::map<const char*, SectionSignal> signalsByName_;
};

extern template int32_t SettingsDaemonDbusHandler::GetSetting(const std::string&, const std::string&, bool&);
extern template int32_t SettingsDaemonDbusHandler::GetSetting(const std::string&, const std::string&,
                                                              std::string&);
extern template int32_t SettingsDaemonDbusHandler::SetSetting(const std::string&, const std::string&, bool);
extern template int32_t SettingsDaemonDbusHandler::SetSetting(const std::string&, const std::string&,
                                                              std::string);

} // namespace Settingsd
