#include "config/settings_client.hpp"

#include <cstring>
#include <string_view>
#include <type_traits>

#include <syslog.h>

#include "support/bus_connection.hpp"

namespace Settingsd {

namespace {

constexpr const char* kService = "com.vantora.common.Settings1";
constexpr const char* kInterface = "com.vantora.common.Settings1";
constexpr const char* kBasePath = "/com/vantora/common/Settings1";

// The names by which the operations appear in the log: fixed texts, whatever a compiler would print today.
constexpr const char* kGetBool =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::GetSetting(const string&, const string&, T&) [with T = bool; int32_t = int; std::__cxx11::string = std::__cxx11::basic_string<char>]";
constexpr const char* kGetString =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::GetSetting(const string&, const string&, T&) [with T = std::__cxx11::basic_string<char>; int32_t = int; std::__cxx11::string = std::__cxx11::basic_string<char>]";
constexpr const char* kSetBool =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::SetSetting(const string&, const string&, T) [with T = bool; int32_t = int; std::__cxx11::string = std::__cxx11::basic_string<char>]";
constexpr const char* kSetString =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::SetSetting(const string&, const string&, T) [with T = std::__cxx11::basic_string<char>; int32_t = int; std::__cxx11::string = std::__cxx11::basic_string<char>]";
constexpr const char* kResetToDefaults =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::ResetToDefaults(bool)";
constexpr const char* kResetSection =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::ResetSection(const string&)";
constexpr const char* kResetSetting =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::ResetSetting(const string&, const string&)";
constexpr const char* kListen = "int32_t Settingsd::SettingsDaemonDbusHandler::Listen()";
constexpr const char* kPropertiesChanged =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::PropertiesChanged(sd_bus_message*, void*, sd_bus_error*)";

/** The sections of the settings store. This program follows "device" and "network", and reads "development".
 */
constexpr std::array<const char*, kSectionCount> kSections = {
    "accessibility", "alarms",   "applications", "audio",     "backup",   "bluetooth",
    "camera",        "clock",    "cloud",        "connector", "control",  "display",
    "diagnostics",   "energy",   "files",        "interface", "keyboard", "development",
    "language",      "device",   "network",      "power",     "printer",  "privacy",
    "region",        "security", "storage",      "time",      "update",
};

std::string section_path(const std::string& section)
{
    return std::string(kBasePath) + "/" + section;
}

/** Calls a reset method of the base object, whose reply carries nothing. Returns the last result code. */
template <typename... Arguments>
int32_t call_reset(const char* function, const char* method, const char* types, Arguments... arguments)
{
    syslog(LOG_INFO, "%s", function);
    BusPtr bus;
    int result = open_user_bus(bus);
    if (result < 0) {
        return result;
    }
    BusError error;
    sd_bus_message* received = nullptr;
    result = sd_bus_call_method(bus.get(), kService, kBasePath, kInterface, method, error.get(), &received,
                                types, arguments...);
    const MessagePtr reply(received);
    if (result < 0) {
        syslog(LOG_ERR, "%s:sd_bus_call_method call failed (r = %d)", function, result);
    }
    return result;
}

} // namespace

SettingsDaemonDbusHandler::SettingsDaemonDbusHandler(sd_event* event) : DbusHelper::DbusListener(event)
{
    for (size_t i = 0; i < kSections.size(); ++i) {
        signalsByName_.emplace(kSections[i], sectionSignals_[i]);
    }
}

template <typename T>
int32_t SettingsDaemonDbusHandler::GetSetting(const std::string& section, const std::string& key, T& value)
{
    constexpr const char* kFunction = std::is_same_v<T, bool> ? kGetBool : kGetString;

    std::string error;
    const int32_t result = sdbus_utils::GetProperty(nullptr, kService, section_path(section).c_str(),
                                                    kInterface, key.c_str(), value, error);
    if (result < 0) {
        syslog(LOG_ERR, "%s: ERROR sdbus_utils::GetProperty %s failed %s", kFunction, key.c_str(),
               error.c_str());
    }
    return result;
}

template <typename T>
int32_t SettingsDaemonDbusHandler::SetSetting(const std::string& section, const std::string& key, T value)
{
    constexpr const char* kFunction = std::is_same_v<T, bool> ? kSetBool : kSetString;

    std::string error;
    const int32_t result = sdbus_utils::SetProperty(nullptr, kService, section_path(section).c_str(),
                                                    kInterface, key.c_str(), value, error);
    if (result < 0) {
        syslog(LOG_ERR, "%s: ERROR sdbus_utils::SetProperty %s failed %s", kFunction, key.c_str(),
               error.c_str());
    }
    return result;
}

template int32_t SettingsDaemonDbusHandler::GetSetting(const std::string&, const std::string&, bool&);
template int32_t SettingsDaemonDbusHandler::GetSetting(const std::string&, const std::string&, std::string&);
template int32_t SettingsDaemonDbusHandler::SetSetting(const std::string&, const std::string&, bool);
template int32_t SettingsDaemonDbusHandler::SetSetting(const std::string&, const std::string&, std::string);

int32_t SettingsDaemonDbusHandler::ResetToDefaults(bool flag)
{
    return call_reset(kResetToDefaults, "ResetToDefaults", "b", static_cast<int>(flag));
}

int32_t SettingsDaemonDbusHandler::ResetSection(const std::string& section)
{
    return call_reset(kResetSection, "ResetSection", "s", section.c_str());
}

int32_t SettingsDaemonDbusHandler::ResetSetting(const std::string& section, const std::string& key)
{
    return call_reset(kResetSetting, "ResetSetting", "ss", section.c_str(), key.c_str());
}

int32_t SettingsDaemonDbusHandler::GetSection(const std::string& section, PropertyMap& settings)
{
    BusPtr bus;
    const int result = open_user_bus(bus);
    if (result < 0) {
        return result;
    }
    return sdbus_utils::GetAllProperties(bus.get(), kService, section_path(section), kInterface, settings);
}

int32_t SettingsDaemonDbusHandler::Listen()
{
    const int32_t connected = Connect();
    if (connected < 0) {
        syslog(LOG_ERR, "%s: Failed to connect to dbus", kListen);
        return connected;
    }
    const int32_t listening = ListenSignal(kService, "", "org.freedesktop.DBus.Properties",
                                           "PropertiesChanged", PropertiesChanged, this);
    const auto result =
        static_cast<int32_t>(static_cast<uint32_t>(connected) | static_cast<uint32_t>(listening));
    if (result < 0) {
        syslog(LOG_ERR, "%s: Failed to register %s signal", kListen, "PropertiesChanged");
    }
    if (result != 0) {
        syslog(LOG_ERR, "LibDbusHelper::Storage: Failed to init signal listeners");
        Disconnect();
    }
    return result;
}

int32_t SettingsDaemonDbusHandler::PropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<SettingsDaemonDbusHandler*>(userdata);

    const char* messagePath = sd_bus_message_get_path(message);
    const std::string path = messagePath != nullptr ? messagePath : "";
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        syslog(LOG_ERR, "%s: Failed to find / in path", kPropertiesChanged);
        return -1;
    }
    if (slash + 1 == path.size()) {
        syslog(LOG_ERR, "%s: Mallformed path string", kPropertiesChanged);
        return -1;
    }
    const std::string section = path.substr(slash + 1);

    if (sd_bus_message_skip(message, "s") < 0) {
        syslog(LOG_ERR, "%s: Failed to skip interface string", kPropertiesChanged);
        return -1;
    }
    PropertyMap changed;
    const int result = sdbus_utils::ParsePropertiesWithType(message, changed);
    if (result < 0) {
        syslog(LOG_ERR, "%s: ParsePropertiesWithType failed:%d", kPropertiesChanged, result);
        return -1;
    }

    self->allSectionsChanged.emit(section, changed);
    if (SectionSignal* signal = self->section_signal(section)) {
        signal->emit(changed);
    }
    return 0;
}

SectionSignal* SettingsDaemonDbusHandler::section_signal(const std::string& section)
{
    for (auto& [name, signal] : signalsByName_) {
        if (section == name) {
            return &signal;
        }
    }
    return nullptr;
}

} // namespace Settingsd
