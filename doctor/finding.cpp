#include "finding.hpp"

#include <algorithm>

namespace doctor {

std::size_t Findings::count(Level level) const
{
    return static_cast<std::size_t>(
        std::ranges::count_if(all_, [level](const Finding& finding) { return finding.level == level; }));
}

int Findings::exit_status() const
{
    if (count(Level::Bad) > 0) {
        return 2;
    }
    return count(Level::Warning) + count(Level::Unseen) > 0 ? 1 : 0;
}

} // namespace doctor
