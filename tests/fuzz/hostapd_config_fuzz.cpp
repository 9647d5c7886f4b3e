#include "radio/hostapd_config.hpp"

#include <algorithm>
#include <sstream>

#include "config/wifi_config.hpp"
#include "fuzz_input.hpp"
#include "support/captured_log.hpp"
#include "support/temp_folder.hpp"

// A template of any bytes, and an SSID of any bytes from the settings: the runtime file holds one line for
// each entry, no value adds another, and reading it gives back what was written.

namespace {

/** What the settings daemon and the radio say. */
struct
{
    std::string ssid;
    std::string frequency;
    bool readable = true;
    bool radio5GHz = true;
} surroundings;

std::string cut_at_line_break(const std::string& value)
{
    return value.substr(0, value.find('\n'));
}

const testing_support::TempFolder& folder()
{
    static const testing_support::TempFolder kMade;
    return kMade;
}

HostapdConfig read_conf(const std::string& name)
{
    HostapdConfig config;
    fuzz::require(hostapd_read_conf(folder().file(name), config) == 1, "the file can be read");
    return config;
}

void check_template(const HostapdConfig& config, const std::string& text)
{
    const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    fuzz::require(config.size() <= lines, "no more entries than lines");
    for (const auto& [key, value] : config) {
        fuzz::require(key.empty() || key.front() != '#', "comments are no entries");
        fuzz::require(key.find_first_of("=\n") == std::string::npos, "a key ends before the equals sign");
        fuzz::require(value.find('\n') == std::string::npos, "a value is on one line");
    }
}

void check_overridden(const HostapdConfig& config)
{
    const bool wants5GHz = surroundings.readable && surroundings.frequency == "5";
    fuzz::require(config.at("ssid") == (surroundings.readable ? surroundings.ssid : "default"),
                  "the SSID is ours");
    fuzz::require(config.at("hw_mode") == (wants5GHz && surroundings.radio5GHz ? "a" : "g"),
                  "the band is ours");
    fuzz::require(config.contains("acs_blacklist"), "radar channels are left out");
}

void check_written(const std::string& text, const HostapdConfig& config)
{
    std::string expected;
    for (const auto& [key, value] : config) {
        expected += key + "=" + cut_at_line_break(value) + "\n";
    }
    fuzz::require(text == expected, "one line for each entry, in order, and no other");
}

} // namespace

// Settings and radio, replaced. Only the readers are asked here.

bool settings_get_device_name(std::string& name)
{
    if (surroundings.readable) {
        name = surroundings.ssid;
    }
    return surroundings.readable;
}

bool settings_get_frequency(std::string& frequency)
{
    if (surroundings.readable) {
        frequency = surroundings.frequency;
    }
    return surroundings.readable;
}

std::string get_default_ssid()
{
    return "default";
}

bool radio_supports_5ghz()
{
    return surroundings.radio5GHz;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    testing_support::captured_log().clear();
    fuzz::Input input(data, size);
    // First the SSID, then a line with the rest of the surroundings, then the template.
    surroundings.ssid = input.up_to_nul();
    const std::string_view words = input.up_to_nul();
    surroundings.readable = words.find("unreadable") == std::string_view::npos;
    surroundings.radio5GHz = words.find("single-band") == std::string_view::npos;
    surroundings.frequency = words.substr(0, words.find(' '));
    const std::string text(input.rest());

    folder().write("template", text);
    HostapdConfig config = read_conf("template");
    check_template(config, text);

    HostapdConfig overrides;
    hostapd_get_overrides(overrides);
    fuzz::require(overrides.size() == 3, "three keys are ours");
    hostapd_merge_conf(overrides, config);
    check_overridden(config);
    hostapd_dump_conf(config);

    fuzz::require(hostapd_write_conf(folder().file("runtime"), config) == 1, "the file can be written");
    check_written(folder().read("runtime"), config);
    for (auto& [key, value] : config) {
        value = cut_at_line_break(value);
    }
    fuzz::require(read_conf("runtime") == config, "what was written is what is read");
    return 0;
}
