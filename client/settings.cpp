#include <algorithm>
#include <chrono>
#include <string>
#include <string_view>

#include "commands.hpp"
#include "properties.hpp"
#include "setting_words.hpp"
#include "text.hpp"
#include "words.hpp"

namespace client {

namespace {

using std::chrono::milliseconds;

/** How long the neighbours may take until what was written can be read: hostapd looks at its channels first.
 */
constexpr milliseconds kSettling{10'000};
constexpr milliseconds kPollInterval{200};

/** What a sub-command writes. */
struct Setting
{
    const char* word;
    const char* property;
    char type;
    Json value;
};

Setting setting_of(const Arguments& arguments)
{
    switch (arguments.command) {
    case Command::On:
        return {"on", "WiFiState", 'u', 1U};
    case Command::Off:
        return {"off", "WiFiState", 'u', 0U};
    case Command::Band:
        return {"band", "WiFiFrequency", 's', arguments.value};
    case Command::Ssid:
        return {"ssid", "SSID", 's', arguments.value};
    default:
        return {"mode", "Mode", 's', arguments.value};
    }
}

bool is_switch(Command command)
{
    return command == Command::On || command == Command::Off;
}

bool reads(Daemon& daemon, const char* property, const Json& value, Deadline deadline)
{
    auto read = daemon.get(property, deadline);
    return read && read.value() == value;
}

bool lacks_band(Daemon& daemon, const std::string& band, Deadline deadline)
{
    auto bands = daemon.get("WiFiAvailableFrequencies", deadline);
    return bands && bands.value().is_array() &&
           std::ranges::find(bands.value(), Json(band)) == bands.value().end();
}

/** The daemon has one word for every refusal; what it meant follows from the state it is in. */
std::string refusal(Daemon& daemon, const Arguments& arguments, Deadline deadline)
{
    if (arguments.command == Command::Band && lacks_band(daemon, arguments.value, deadline)) {
        return "this device's radio has no " + arguments.value + " GHz band";
    }
    const bool station = arguments.command == Command::Band && reads(daemon, "Mode", "Client", deadline);
    return refused_write_meaning(arguments.command, station);
}

/** Waits without a busy loop: what the bus brings meanwhile is of no interest here. */
std::optional<Failure> pause_until(Daemon& daemon, Deadline moment)
{
    while (Clock::now() < moment) {
        if (auto failure = daemon.step(moment)) {
            return failure;
        }
    }
    return std::nullopt;
}

/**
 * Reads the property until it has the value or the time is over; the value read last. A quarter of the time
 * is kept for the answer to the last look: a busy device that says no is not to be taken for one that says
 * nothing.
 */
Result<Json> settled(Daemon& daemon, const Setting& setting, Deadline deadline)
{
    const auto now = Clock::now();
    const Deadline end = now + std::min<Clock::duration>((deadline - now) / 4 * 3, kSettling);
    for (;;) {
        auto read = daemon.get(setting.property, deadline);
        if (!read || read.value() == setting.value || Clock::now() + kPollInterval >= end) {
            return read;
        }
        if (auto failure = pause_until(daemon, Clock::now() + kPollInterval)) {
            return *failure;
        }
    }
}

/** What has become of a write that the daemon took. */
Result<Applied> outcome(Daemon& daemon, const Arguments& arguments, const Setting& setting, Deadline deadline)
{
    if (!is_switch(arguments.command)) {
        auto radio = daemon.get("WiFiState", deadline);
        if (!radio) {
            return radio.failure();
        }
        if (radio.value() == 0) {
            return Applied::WhenOn;
        }
    }
    if (arguments.command == Command::Ssid) {
        auto mode = daemon.get("Mode", deadline);
        if (!mode) {
            return mode.failure();
        }
        if (mode.value() == "Client") {
            return Applied::WhenHost;
        }
    }
    auto read = settled(daemon, setting, deadline);
    if (!read) {
        return read.failure();
    }
    if (read.value() != setting.value) {
        return Failure{ExitStatus::Refused, without_effect(arguments.command, read.value()), "", ""};
    }
    return Applied::Now;
}

/** Prints the value that there is. */
std::optional<Failure> show(Daemon& daemon, const Setting& setting, Output& output, Deadline deadline)
{
    auto value = daemon.get(setting.property, deadline);
    if (!value) {
        return value.failure();
    }
    if (output.json()) {
        output.object("value", {{"name", find_property(setting.property)->field}, {"value", value.value()}});
        return std::nullopt;
    }
    const auto text = value.value().get<std::string>();
    if (text.empty()) {
        return Failure{ExitStatus::Refused,
                       std::string("there is no ") + setting.word +
                           " at the moment: the device is no access point, or the radio is off",
                       "", ""};
    }
    output.line(escaped(setting.property == std::string_view("Mode") ? word_of_mode(text) : text));
    return std::nullopt;
}

} // namespace

std::optional<Failure> run_setting(Daemon& daemon, const Arguments& arguments, Output& output)
{
    const Deadline deadline = Clock::now() + arguments.timeout;
    const Setting setting = setting_of(arguments);

    if (!is_switch(arguments.command) && arguments.value.empty()) {
        return show(daemon, setting, output, deadline);
    }
    if (auto failure = daemon.set(setting.property, setting.type, setting.value, deadline)) {
        if (failure->status == ExitStatus::Refused) {
            failure->text = refusal(daemon, arguments, deadline);
        }
        return failure;
    }
    const auto applied = outcome(daemon, arguments, setting, deadline);
    if (!applied) {
        return applied.failure();
    }
    if (output.json()) {
        Json fields = {{"command", setting.word}, {"applied", applied.value() == Applied::Now}};
        if (!is_switch(arguments.command)) {
            fields["value"] = arguments.value;
        }
        output.object("done", fields);
    }
    output.line(done_text(arguments.command, arguments.value, applied.value()));
    return std::nullopt;
}

} // namespace client
