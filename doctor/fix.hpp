#pragma once

#include <string>
#include <vector>

#include "finding.hpp"
#include "view.hpp"

namespace doctor {

/** What became of one remedy. */
struct Mended
{
    bool done = false;
    std::string text; /**< for people: what was done, or why it could not be */
};

/**
 * Does what can be mended without a question, each once: a unit is unmasked, a unit is started, systemd reads
 * its files anew, an abandoned socket is removed. Nothing that a person has edited is touched.
 *
 * @return one entry for each, in the order of the findings; a unit that was started is waited for, a few
 * seconds at most
 */
std::vector<Mended> mend(const View& view, const Findings& findings);

} // namespace doctor
