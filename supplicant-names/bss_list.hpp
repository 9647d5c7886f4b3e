#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <systemd/sd-bus.h>

/** The list of access points that wpa_supplicant has last given to a caller: the order in which callers then
 * ask for each. */
class BssList
{
public:
    BssList() = default;
    BssList(const BssList&) = delete;
    BssList& operator=(const BssList&) = delete;

    /** Looks whether an answer that has been handed back is such a list, and remembers it. */
    void learn(sd_bus_message* call, sd_bus_message* answer);

    /** Where an object stands in the list, if it does. */
    std::optional<size_t> position(const char* path) const;

    size_t size() const { return paths_.size(); }
    const std::string& at(size_t position) const { return paths_[position]; }

private:
    std::vector<std::string> paths_;
    std::unordered_map<std::string_view, size_t> positions_;
};
