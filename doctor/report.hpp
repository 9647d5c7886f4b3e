#pragma once

#include <string>

#include "finding.hpp"
#include "view.hpp"

namespace doctor {

/**
 * The text of a bug report: versions, what was found, the files that decide how the device behaves, what the
 * system's own programs say, and the warnings of the log. Secrets are taken out of all of it: by their names,
 * and those that are known also where they stand without.
 *
 * @param when the time in words, for its head
 */
std::string report_text(const View& view, const Findings& findings, const std::string& when);

/** Writes it to a file that only its owner may read, and that must not be there yet. Returns 0, or the errno.
 */
int write_report(const std::string& path, const std::string& text);

} // namespace doctor
