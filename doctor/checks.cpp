#include "checks.hpp"

#include <array>

namespace doctor {

std::span<const Group> all_groups()
{
    static constexpr auto kGroups = std::to_array<Group>({
        {"programs", check_programs},
        {"radio", check_radio},
        {"interfaces", check_interfaces},
        {"managers", check_managers},
        {"units", check_units},
        {"hostapd", check_hostapd},
        {"supplicant", check_supplicant},
        {"bus", check_user_bus},
        {"files", check_bus_files},
        {"settings", check_settings},
        {"daemon", check_daemon},
    });
    return kGroups;
}

Findings look_at(const View& view)
{
    Findings findings;
    for (const Group& group : all_groups()) {
        group.check(view, findings);
    }
    return findings;
}

} // namespace doctor
