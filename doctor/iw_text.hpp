#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace doctor {

/** A radio as `iw list` describes it. */
struct Radio
{
    std::string name;         /**< "phy0" */
    bool accessPoint = false; /**< whether it can be an access point at all */
    /** Channels at 2.4 GHz on which it may be one just now: not disabled, not for listening only, not shared
     * with radar. */
    int usableLow = 0;
    /** The same at 5 GHz. */
    int usableHigh = 0;
};

/** The radios in what `iw list` prints. Any bytes may be given. */
std::vector<Radio> radios_in(std::string_view text);

/** What stands behind a word at the beginning of a line, as "type" in `iw dev wlan0 info`; empty when it is
 * not there. */
std::string iw_value(std::string_view text, std::string_view word);

/** The country of the regulatory domain in what `iw reg get` prints; empty when there is none. */
std::string regulatory_country(std::string_view text);

/** The interfaces in what `iw dev` prints. */
std::vector<std::string> wireless_interfaces(std::string_view text);

} // namespace doctor
