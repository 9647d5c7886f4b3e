#include "interface_patterns.hpp"

#include <algorithm>
#include <cstddef>
#include <string>

#include <fnmatch.h>

namespace doctor {

bool has_pattern_for(std::string_view list, const char* interface)
{
    constexpr std::string_view kBetween = " \t,";
    std::size_t start = list.find_first_not_of(kBetween);
    while (start != std::string_view::npos) {
        const std::size_t end = std::min(list.find_first_of(kBetween, start), list.size());
        if (::fnmatch(std::string(list.substr(start, end - start)).c_str(), interface, 0) == 0) {
            return true;
        }
        start = list.find_first_not_of(kBetween, end);
    }
    return false;
}

} // namespace doctor
