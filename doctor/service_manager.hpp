#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "bus.hpp"

namespace doctor {

/** A unit as systemd sees it; nothing of it is started by looking. */
class Unit
{
public:
    /** Asks for the unit by its name. */
    static Unit look_up(Bus& bus, const std::string& name);

    /** Why systemd could not be asked; empty when it could. */
    const std::string& failure() const { return failure_; }

    const std::string& name() const { return name_; }
    std::string load_state() const { return word("LoadState"); }
    std::string active_state() const { return word("ActiveState"); }
    std::string file_state() const { return word("UnitFileState"); }
    bool is_loaded() const { return load_state() == "loaded"; }
    bool is_masked() const { return load_state() == "masked" || file_state().starts_with("masked"); }
    bool is_active() const { return active_state() == "active" || active_state() == "reloading"; }

    /** A property as text, number, or truth; empty, 0 or false when it has not got it. */
    std::string word(const char* property) const;
    std::uint64_t number(const char* property) const;
    bool truth(const char* property) const;

    /** The command lines that the unit runs when it is started, one a line; empty when that cannot be asked.
     */
    const std::string& commands() const { return commands_; }

    /** The words of each ExecStart=, drop-ins included; none when that cannot be asked. */
    const std::vector<std::vector<std::string>>& starts() const { return starts_; }

    /** A variable of its Environment=, drop-ins included; empty without one. Files of variables are not read.
     */
    std::string variable(std::string_view name) const;

private:
    std::string name_;
    std::string failure_;
    Json properties_ = Json::object();
    std::string commands_;
    std::vector<std::vector<std::string>> starts_;
};

/** The manager's object. */
Target systemd_manager();

} // namespace doctor
