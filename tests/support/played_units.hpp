#pragma once

// The unit control, replaced: for the one source file of a test program.

#include <string>
#include <vector>

#include "utils/systemd_units.hpp"

namespace testing_support {

/** What the unit control was asked to do, and what it answers. */
struct PlayedUnits
{
    bool enabled = true;
    bool disabled = true;
    int loaded = 1;
    std::string loadedPath = "/unit";
    int jobDone = 1;
    /** What a test looks at when a job is asked for. */
    void (*atJob)() = nullptr;
    std::vector<std::string> calls;
};

inline PlayedUnits units;

inline int played_job(const std::string& verb, const std::string& path)
{
    units.calls.push_back(verb + " '" + path + "'");
    if (units.atJob != nullptr) {
        units.atJob();
    }
    return units.jobDone;
}

} // namespace testing_support

bool utils_enable_service(const std::string& unit)
{
    testing_support::units.calls.push_back("enable " + unit);
    return testing_support::units.enabled;
}

bool utils_disable_service(const std::string& unit)
{
    testing_support::units.calls.push_back("disable " + unit);
    return testing_support::units.disabled;
}

int utils_load_service_unit(const std::string& name, std::string& path)
{
    testing_support::units.calls.push_back("load " + name);
    path = testing_support::units.loadedPath;
    return testing_support::units.loaded;
}

int utils_start_service(const std::string& path)
{
    return testing_support::played_job("start", path);
}

int utils_restart_service(const std::string& path)
{
    return testing_support::played_job("restart", path);
}

int utils_stop_service(const std::string& path)
{
    return testing_support::played_job("stop", path);
}
