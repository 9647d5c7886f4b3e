#include "service_manager.hpp"

#include <array>

namespace doctor {

namespace {

constexpr const char* kSystemd = "org.freedesktop.systemd1";

/** The words of one command line: (sasb...) as ExecStart has it. */
std::string command_line(const Json& command)
{
    std::string line;
    if (command.is_array() && command.size() > 1 && command[1].is_array()) {
        for (const Json& word : command[1]) {
            line += (line.empty() ? "" : " ") + (word.is_string() ? word.get<std::string>() : "");
        }
    }
    return line;
}

std::string command_lines(Bus& bus, const std::string& path)
{
    std::string lines;
    for (const char* const property : {"ExecStartPre", "ExecStart"}) {
        const Reply reply = bus.property({kSystemd, path, "org.freedesktop.systemd1.Service"}, property);
        if (!reply.value().is_array()) {
            continue;
        }
        for (const Json& command : reply.value()) {
            lines += command_line(command) + "\n";
        }
    }
    return lines;
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
        unit.commands_ = command_lines(bus, path.word());
        // How often it was restarted is a matter of services, not of units.
        const Reply restarts =
            bus.property({kSystemd, path.word(), "org.freedesktop.systemd1.Service"}, "NRestarts");
        if (restarts.value().is_number_unsigned()) {
            unit.properties_["NRestarts"] = restarts.value();
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

} // namespace doctor
