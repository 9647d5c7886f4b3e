#pragma once

#include <string>
#include <vector>

#include "client/terminal.hpp"
#include "finding.hpp"
#include "fix.hpp"

namespace doctor {

/** The lines for people: what was mended, group after group what was found, and one line that sums it up.
 * Whatever comes from files, programs or the air is escaped. */
std::string shown_to_people(const std::vector<Mended>& mended, const Findings& findings,
                            const client::Terminal& terminal);

/** One JSON object on one line, ASCII only: "status", "mended" and "findings". A finding's "level" is "good",
 * "note", "unseen", "warning" or "bad". */
std::string shown_to_programs(const std::vector<Mended>& mended, const Findings& findings);

} // namespace doctor
