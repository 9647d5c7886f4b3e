#pragma once

#include <map>
#include <string>
#include <string_view>

namespace KorrinInfo::detail {

using DeviceConf = std::map<std::string, std::string, std::less<>>;

/**
 * Parses lines of the form key=value. Blanks around key and value and CRLF line ends are dropped; empty
 * lines, lines that begin with '#' or ';' and lines without '=' are passed over. A key given twice has its
 * last value; a key with nothing after '=' has an empty one.
 */
DeviceConf parse_device_conf(std::string_view text);

/** Reads and parses the file; a file that cannot be read is an empty one. */
DeviceConf read_device_conf(const std::string& path);

} // namespace KorrinInfo::detail
