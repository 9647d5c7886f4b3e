#include "device_conf.hpp"

#include "fuzz_input.hpp"

// The device's identity file, of any bytes.

using KorrinInfo::detail::DeviceConf;
using KorrinInfo::detail::parse_device_conf;

namespace {

bool is_trimmed(const std::string& text)
{
    constexpr std::string_view kBlanks = " \t\r\n";
    return text.empty() || (kBlanks.find(text.front()) == std::string_view::npos &&
                            kBlanks.find(text.back()) == std::string_view::npos);
}

std::string written(const DeviceConf& conf)
{
    std::string text;
    for (const auto& [key, value] : conf) {
        text += key + "=" + value + "\n";
    }
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const DeviceConf conf = parse_device_conf({reinterpret_cast<const char*>(data), size});
    for (const auto& [key, value] : conf) {
        fuzz::require(!key.empty() && is_trimmed(key) && is_trimmed(value),
                      "no blanks around keys and values");
        fuzz::require(key.find_first_of("=\n") == std::string::npos, "a key ends before the equals sign");
        fuzz::require(value.find('\n') == std::string::npos, "a value is on one line");
        fuzz::require(key.front() != '#' && key.front() != ';', "comments are no entries");
    }
    // A first key could begin with a byte order mark of its own, behind the one that was dropped: hence the
    // line.
    fuzz::require(parse_device_conf("\n" + written(conf)) == conf, "what is written is read again");
    return 0;
}
