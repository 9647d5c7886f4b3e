#include <algorithm>
#include <string>

#include "commands.hpp"
#include "text.hpp"
#include "words.hpp"

namespace client {

namespace {

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

/** With the radio off these are only stored. */
bool waits_for_radio(Command command)
{
    return command == Command::Mode || command == Command::Band || command == Command::Ssid;
}

std::string done_text(const Arguments& arguments, bool applied)
{
    switch (arguments.command) {
    case Command::On:
        return "The radio is on.";
    case Command::Off:
        return "The radio is off.";
    case Command::Band:
        return applied ? "The access point's band is " + arguments.value + " GHz."
                       : "Stored: the access point's band will be " + arguments.value +
                             " GHz when the radio is on.";
    case Command::Ssid: {
        const std::string name = "\"" + escaped(arguments.value) + "\"";
        return applied ? "The access point's name is " + name + "."
                       : "Stored: the access point's name will be " + name + " when the radio is on.";
    }
    default: {
        const std::string role = arguments.value == "Host" ? "an access point (Host)" : "a station (Client)";
        return applied ? "The device is " + role + "."
                       : "Stored: the device will be " + role + " when the radio is on.";
    }
    }
}

} // namespace

std::optional<Failure> run_setting(Daemon& daemon, const Arguments& arguments, Output& output)
{
    const Deadline deadline = Clock::now() + arguments.timeout;
    const Setting setting = setting_of(arguments);

    if (auto failure = daemon.set(setting.property, setting.type, setting.value, deadline)) {
        if (failure->status == ExitStatus::Refused) {
            failure->text = refusal(daemon, arguments, deadline);
        }
        return failure;
    }

    bool applied = true;
    if (waits_for_radio(arguments.command)) {
        auto radio = daemon.get("WiFiState", deadline);
        if (!radio) {
            return radio.failure();
        }
        applied = radio.value() != 0;
    }
    if (output.json()) {
        Json fields = {{"command", setting.word}, {"applied", applied}};
        if (waits_for_radio(arguments.command)) {
            fields["value"] = arguments.value;
        }
        output.object("done", fields);
    }
    output.line(done_text(arguments, applied));
    return std::nullopt;
}

} // namespace client
