#include "status.hpp"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "commands.hpp"
#include "properties.hpp"
#include "text.hpp"
#include "watch.hpp"
#include "words.hpp"

namespace client {

namespace {

/** All but the list of networks, which costs the daemon a question for each of them. */
Result<Json> read_one_by_one(Daemon& daemon, Deadline deadline)
{
    Json values = Json::object();
    for (const PropertyName& property : known_properties()) {
        auto value = daemon.get(property.daemon, deadline);
        if (value) {
            values[property.daemon] = std::move(value.value());
        } else if (value.failure().status != ExitStatus::Refused) {
            return value.failure();
        }
    }
    return values;
}

std::string joined(const Json& texts)
{
    std::string line;
    for (const Json& text : texts) {
        line += (line.empty() ? "" : ", ") + text.get<std::string>();
    }
    return line;
}

} // namespace

Result<Json> read_status(Daemon& daemon, Deadline deadline)
{
    auto values = read_one_by_one(daemon, deadline);
    return values ? Result<Json>(status_fields(values.value())) : values;
}

bool is_shown(std::string_view field, std::string_view mode)
{
    constexpr auto kHost =
        std::to_array<std::string_view>({"ssid", "band", "access_point_ready", "stations"});
    constexpr auto kClient = std::to_array<std::string_view>({"client_ssid", "client_state"});
    const auto holds = [field](const auto& list) { return std::ranges::find(list, field) != list.end(); };
    return holds(kHost) ? mode == "Host" : !holds(kClient) || mode == "Client";
}

Style field_style(const Json& value)
{
    if (value == "on" || value == "completed" || value == true) {
        return Style::Good;
    }
    return value == "off" || value == "failed" ? Style::Bad : Style::Plain;
}

std::string field_text(const std::string& field, const Json& value)
{
    if (value.is_null()) {
        return "?";
    }
    if (value.is_array()) {
        return escaped(joined(value));
    }
    if (value.is_boolean()) {
        // The daemon does not hear all of it: hostapd may have said so before anybody listened.
        return value.get<bool>() ? "yes" : field == "access_point_ready" ? "not heard of" : "no";
    }
    if (!value.is_string()) {
        return value.dump();
    }
    const auto text = value.get<std::string>();
    if (field == "mode" && text == "Host") {
        return "Host (access point)";
    }
    if (field == "mode" && text == "Client") {
        return "Client (station)";
    }
    if (field == "client_state") {
        const std::string meaning = state_meaning(text);
        return meaning.empty() || text.empty() ? escaped(text) + meaning
                                               : escaped(text) + " (" + meaning + ")";
    }
    if (field == "band" && !text.empty()) {
        return escaped(text) + " GHz";
    }
    if (field == "transmit_power") {
        constexpr std::string_view kTag = "txpower ";
        return escaped(text.starts_with(kTag) ? text.substr(kTag.size()) : text);
    }
    return text.empty() ? "-" : escaped(text);
}

Table status_table(const Json& fields, const Terminal& terminal)
{
    const std::string mode =
        fields.value("mode", Json()).is_string() ? fields["mode"].get<std::string>() : "";
    Table table;
    for (const PropertyName& property : known_properties()) {
        if (!is_shown(property.field, mode)) {
            continue;
        }
        const Json& value = fields.at(property.field);
        const Style style = field_style(value);
        table.add({{property.label, terminal.before(Style::Heading), terminal.after(Style::Heading)},
                   {field_text(property.field, value), terminal.before(style), terminal.after(style)}});
    }
    return table;
}

std::optional<Failure> run_status(Daemon& daemon, const Arguments& arguments, Output& output)
{
    if (arguments.watch) {
        return watch_status(daemon, arguments, output);
    }
    auto fields = read_status(daemon, Clock::now() + arguments.timeout);
    if (!fields) {
        return fields.failure();
    }
    if (output.json()) {
        output.object("status", fields.value());
    } else {
        output.table(status_table(fields.value(), output.terminal()));
    }
    return std::nullopt;
}

} // namespace client
