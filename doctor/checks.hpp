#pragma once

#include <span>

#include "finding.hpp"
#include "view.hpp"

namespace doctor {

/** A group of checks: it looks at one matter and adds what it finds. */
struct Group
{
    const char* name; /**< the first part of the names of its findings */
    void (*check)(const View& view, Findings& findings);
};

/** All groups, in the order in which the device stands on them. */
std::span<const Group> all_groups();

/** Looks at everything. */
Findings look_at(const View& view);

void check_programs(const View& view, Findings& findings);
void check_radio(const View& view, Findings& findings);
void check_interfaces(const View& view, Findings& findings);
void check_managers(const View& view, Findings& findings);
void check_units(const View& view, Findings& findings);
void check_hostapd(const View& view, Findings& findings);
void check_supplicant(const View& view, Findings& findings);
void check_user_bus(const View& view, Findings& findings);
void check_bus_files(const View& view, Findings& findings);
void check_settings(const View& view, Findings& findings);
void check_daemon(const View& view, Findings& findings);

} // namespace doctor
