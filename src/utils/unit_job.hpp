#pragma once

#include <string>

/** A unit job: utils_start_service, utils_restart_service or utils_stop_service. */
using UnitJob = int (*)(const std::string& path);

/**
 * Looks a unit up and, when the look-up returned nonzero (which it also does after a refused look-up, the
 * path then being empty), runs the job on its object path.
 *
 * @return the job's result, or the look-up's 0
 */
int run_unit_job(const char* unit, UnitJob job);
