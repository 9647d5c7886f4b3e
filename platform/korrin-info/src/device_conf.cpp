#include "device_conf.hpp"

#include "small_file.hpp"

namespace KorrinInfo::detail {

DeviceConf parse_device_conf(std::string_view text)
{
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (text.starts_with(kByteOrderMark)) {
        text.remove_prefix(kByteOrderMark.size());
    }
    DeviceConf conf;
    while (!text.empty()) {
        const auto lineEnd = text.find('\n');
        const std::string_view line = trim(text.substr(0, lineEnd));
        text.remove_prefix(lineEnd == std::string_view::npos ? text.size() : lineEnd + 1);

        const auto equals = line.find('=');
        if (line.empty() || line.front() == '#' || line.front() == ';' || equals == std::string_view::npos) {
            continue;
        }
        const std::string_view key = trim(line.substr(0, equals));
        if (!key.empty()) {
            conf.insert_or_assign(std::string(key), std::string(trim(line.substr(equals + 1))));
        }
    }
    return conf;
}

DeviceConf read_device_conf(const std::string& path)
{
    const auto text = read_small_file(path);
    return text ? parse_device_conf(*text) : DeviceConf{};
}

} // namespace KorrinInfo::detail
