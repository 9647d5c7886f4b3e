#include <any>
#include <array>

#include "config/settings_client.hpp"
#include "core/event_reactions.hpp"
#include "core/wifi_control.hpp"
#include "message_builder.hpp"
#include "support/captured_log.hpp"

// Change notifications of the settings daemon: any path that D-Bus allows, any contents. The section is what
// stands behind the path's last slash, and the reaction acts on nothing but the settings it knows, in their
// types.

namespace {

using Settingsd::PropertyMap;
using Settingsd::SettingsDaemonDbusHandler;

/** What the reaction asked the control operations for. */
struct
{
    size_t actions = 0;
} asked;

/** What the handler told of the last notification. */
struct
{
    size_t times = 0;
    size_t sectionTimes = 0;
    std::string section;
    PropertyMap settings;
} told;

void note_any_section(const std::string& section, const PropertyMap& settings)
{
    ++told.times;
    told.section = section;
    told.settings = settings;
}

void note_section(const PropertyMap&)
{
    ++told.sectionTimes;
}

/** One for the life of the process, as in the daemon; it is never connected. */
SettingsDaemonDbusHandler& handler()
{
    static SettingsDaemonDbusHandler* const kMade = [] {
        sd_event* event = nullptr;
        fuzz::require(sd_event_default(&event) >= 0, "an event loop");
        auto* settings = new SettingsDaemonDbusHandler(event);
        settings->allSectionsChanged.connect(sigc::ptr_fun(note_any_section));
        for (const char* section : {"network", "device"}) {
            settings->section_signal(section)->connect(sigc::ptr_fun(note_section));
            settings->section_signal(section)->connect(sigc::ptr_fun(settings_changed));
        }
        return settings;
    }();
    return *kMade;
}

size_t actions_due(const PropertyMap& settings)
{
    size_t due = 0;
    for (const auto& [name, typed] : settings) {
        const bool text = name == "frequency" || name == "mode" || name == "deviceName";
        due += (text && typed.first == "s") || (name == "enabled" && typed.first == "b") ? 1 : 0;
    }
    return due;
}

void check_told(const std::string& path)
{
    fuzz::require(told.times == 1, "a notification is told once");
    fuzz::require(path.ends_with("/" + told.section), "its section stands behind a slash");
    fuzz::require(!told.section.empty() && told.section.find('/') == std::string::npos,
                  "behind the last one");
    const bool followed = told.section == "network" || told.section == "device";
    fuzz::require(told.sectionTimes == (followed ? 1 : 0), "who follows the section is told");
    fuzz::require(asked.actions == (followed ? actions_due(told.settings) : 0),
                  "known settings are acted on");
}

} // namespace

// The control operations, replaced.

int set_wifi_state(uint32_t state)
{
    fuzz::require(state <= 1, "on or off");
    ++asked.actions;
    return 0;
}

int set_wifi_mode(const std::string&, WriteThrough writeThrough)
{
    fuzz::require(writeThrough == WriteThrough::Off, "what the settings say is not written back");
    ++asked.actions;
    return 0;
}

int set_wifi_frequency(const std::string& frequency, WriteThrough writeThrough)
{
    return set_wifi_mode(frequency, writeThrough);
}

int set_wifi_ssid(const std::string& ssid, WriteThrough writeThrough)
{
    return set_wifi_mode(ssid, writeThrough);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    testing_support::captured_log().clear();
    told = {};
    asked = {};
    fuzz::Input input(data, size);
    const std::string_view line = input.up_to_nul();
    const MessagePtr message = fuzz::new_signal(std::string(line));
    const std::string path = sd_bus_message_get_path(message.get());

    fuzz::MessageBuilder builder(input, {"enabled", "mode", "frequency", "deviceName"});
    const size_t shape = input.below(8);
    if (shape == 0) {
        builder.append_any(message);
    } else {
        sd_bus_message_append(message.get(), "s", "com.vantora.common.Settings1");
    }
    fuzz::ExpectedTypes expected;
    if (shape == 1) {
        builder.append_any(message);
    } else if (shape > 1) {
        builder.append_dictionary(message, expected);
        sd_bus_message_append(message.get(), "as", 0);
    }
    fuzz::make_readable(message);

    const int32_t result = SettingsDaemonDbusHandler::PropertiesChanged(message.get(), &handler(), nullptr);
    fuzz::require(result == 0 || result == -1, "read or dropped");
    if (result == 0) {
        check_told(path);
        fuzz::require(shape <= 1 || told.settings.size() == expected.size(), "all settings are told");
    } else {
        fuzz::require(told.times == 0 && asked.actions == 0, "what is dropped has no effect");
        fuzz::require(!testing_support::captured_log().lines().empty(), "and is logged");
        fuzz::require(shape <= 1 || path == "/" || !builder.valid(), "a good one is not dropped");
    }
    return 0;
}
