#pragma once

#include <string>

namespace KorrinInfo::detail {

/**
 * The three answers of this library for the machine whose files stand below `root` (empty: this one): the
 * value in etc/korrin/device.conf where the key is there, else what the machine itself tells.
 */
std::string display_name(const std::string& root);
std::string serial_number(const std::string& root);

/** `radioOffers5ghz` is asked only when the file holds no whole number. */
int radio_type(const std::string& root, bool (*radioOffers5ghz)());

} // namespace KorrinInfo::detail
