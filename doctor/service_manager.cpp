#include "service_manager.hpp"

#include <vector>

namespace doctor {

namespace {

constexpr const char* kSystemd = "org.freedesktop.systemd1";

using CommandLines = std::vector<std::vector<std::string>>;

Target service(const std::string& path)
{
    return {kSystemd, path, "org.freedesktop.systemd1.Service"};
}

/** The words of each command of a property: (sasb...) as ExecStart has it. */
CommandLines command_lines(Bus& bus, const std::string& path, const char* property)
{
    CommandLines lines;
    const Reply reply = bus.property(service(path), property);
    if (!reply.value().is_array()) {
        return lines;
    }
    for (const Json& command : reply.value()) {
        std::vector<std::string>& words = lines.emplace_back();
        if (command.is_array() && command.size() > 1 && command[1].is_array()) {
            for (const Json& word : command[1]) {
                words.push_back(word.is_string() ? word.get<std::string>() : "");
            }
        }
    }
    return lines;
}

std::string joined(const CommandLines& lines)
{
    std::string text;
    for (const std::vector<std::string>& words : lines) {
        std::string line;
        for (const std::string& word : words) {
            line += (line.empty() ? "" : " ") + word;
        }
        text += line + "\n";
    }
    return text;
}

} // namespace

Target systemd_manager()
{
    return {kSystemd, "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager"};
}

Unit Unit::look_up(Bus& bus, const std::string& name)
{
    Unit unit;
    unit.name_ = name;
    const Reply path = bus.call(systemd_manager(), "LoadUnit", "s", {name});
    if (!path.answered()) {
        unit.failure_ = path.text.empty() ? path.error : path.text;
        return unit;
    }
    const Reply all = bus.properties({kSystemd, path.word(), "org.freedesktop.systemd1.Unit"});
    if (!all.answered() || !all.value().is_object()) {
        unit.failure_ = all.text.empty() ? "an answer of another type" : all.text;
        return unit;
    }
    unit.properties_ = all.value();
    if (unit.is_loaded()) {
        unit.starts_ = command_lines(bus, path.word(), "ExecStart");
        unit.commands_ = joined(command_lines(bus, path.word(), "ExecStartPre")) + joined(unit.starts_);
        // How often it was restarted and with which environment are matters of services, not of units.
        for (const char* const property : {"NRestarts", "Environment"}) {
            const Reply reply = bus.property(service(path.word()), property);
            if (reply.answered()) {
                unit.properties_[property] = reply.value();
            }
        }
    }
    return unit;
}

std::string Unit::word(const char* property) const
{
    const auto found = properties_.find(property);
    return found != properties_.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::uint64_t Unit::number(const char* property) const
{
    const auto found = properties_.find(property);
    return found != properties_.end() && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

bool Unit::truth(const char* property) const
{
    const auto found = properties_.find(property);
    return found != properties_.end() && found->is_boolean() && found->get<bool>();
}

std::string Unit::variable(std::string_view name) const
{
    std::string value;
    const auto found = properties_.find("Environment");
    if (found == properties_.end() || !found->is_array()) {
        return value;
    }
    const std::string start = std::string(name) + "=";
    for (const Json& assignment : *found) {
        if (assignment.is_string() && assignment.get_ref<const std::string&>().starts_with(start)) {
            value = assignment.get<std::string>().substr(start.size());
        }
    }
    return value;
}

} // namespace doctor
