#pragma once

#include <string>

namespace KorrinInfo::detail {

/**
 * What the machine itself tells about its identity: the device tree where there is one, else the firmware's
 * DMI tables, else (serial number only) a digest of the machine id. `root` is put before every path; empty on
 * a real machine. An empty string when nothing is known.
 */
std::string machine_model(const std::string& root);
std::string machine_serial(const std::string& root);

} // namespace KorrinInfo::detail
