#pragma once

#include <cstddef>
#include <span>

namespace KorrinInfo::detail {

/** Whether the attributes of an nl80211 wiphy message list a 5 GHz band. Any bytes may be given. */
bool attributes_offer_5ghz(std::span<const std::byte> attributes);

/**
 * Asks the kernel whether the radio behind wlan0 (any radio, while there is no wlan0) has a 5 GHz band. Waits
 * a quarter of a second at most; false as well when there is no radio, no nl80211, or no answer.
 */
bool radio_offers_5ghz();

} // namespace KorrinInfo::detail
