#include "utils/unit_job.hpp"

#include "utils/systemd_units.hpp"

int run_unit_job(const char* unit, UnitJob job)
{
    std::string path;
    const int found = utils_load_service_unit(unit, path);
    return found != 0 ? job(path) : found;
}
