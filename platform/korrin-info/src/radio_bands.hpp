#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

namespace KorrinInfo::detail {

/** Whether the attributes of an nl80211 wiphy message list a 5 GHz band. Any bytes may be given. */
bool attributes_offer_5ghz(std::span<const std::byte> attributes);

/**
 * The question to the kernel, over a socket of generic netlink: whether the radio behind the interface of
 * that number (any radio, for 0) has a 5 GHz band. Waits `patience` at most; false as well when there is no
 * radio, no nl80211, or no answer. What anybody but the kernel sends is passed over.
 */
bool kernel_offers_5ghz(int socket, std::uint32_t interface, std::chrono::milliseconds patience);

/**
 * Asks the kernel whether the radio behind wlan0 (any radio, while there is no wlan0) has a 5 GHz band. Waits
 * a quarter of a second at most; false as well when there is no radio, no nl80211, or no answer.
 */
bool radio_offers_5ghz();

} // namespace KorrinInfo::detail
