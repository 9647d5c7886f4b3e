#include "machine_identity.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "small_file.hpp"

namespace KorrinInfo::detail {

namespace {

/** The first line of a file, or its text up to the NUL that ends a device-tree string. */
std::string read_word(const std::string& path)
{
    constexpr std::string_view kEnds("\0\r\n", 3);
    const auto contents = read_small_file(path);
    if (!contents) {
        return {};
    }
    const std::string_view text = trim(*contents);
    return std::string(trim(text.substr(0, text.find_first_of(kEnds))));
}

/** A DMI field, or nothing where the board's maker left the template's text in it. */
std::string read_dmi_field(const std::string& path)
{
    constexpr std::array<std::string_view, 9> kFillers = {
        "to be filled by o.e.m.", "default string", "not specified",
        "not applicable",         "none",           "system product name",
        "system serial number",   "unknown",        "0",
    };
    const std::string value = read_word(path);
    std::string lowerCase = value;
    std::transform(lowerCase.begin(), lowerCase.end(), lowerCase.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const bool filler = std::find(kFillers.begin(), kFillers.end(), lowerCase) != kFillers.end();
    return filler ? std::string() : value;
}

/**
 * Twelve hexadecimal digits made from the machine id. The id itself is meant to stay on the machine, while a
 * serial number is shown to everybody (it becomes part of the network's name), so only a digest leaves here.
 */
std::string machine_id_digest(const std::string& path)
{
    constexpr std::size_t kMachineIdLength = 32;
    const std::string id = read_word(path);
    const bool valid =
        id.size() == kMachineIdLength &&
        std::all_of(id.begin(), id.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
    if (!valid) {
        return {};
    }
    std::uint64_t digest = 0xCBF29CE484222325U; // FNV-1a, 64 bits
    for (const unsigned char c : id) {
        digest = (digest ^ c) * 0x100000001B3U;
    }
    constexpr std::uint64_t kLow48Bits = 0xFFFF'FFFF'FFFFU;
    std::array<char, 13> text = {};
    std::snprintf(text.data(), text.size(), "%012llX",
                  static_cast<unsigned long long>((digest ^ (digest >> 48U)) & kLow48Bits));
    return text.data();
}

/** As many whole words of a text, which begins with one, as fit into a number of bytes; where the first does
 * not, as many of its bytes. */
std::string first_words(const std::string& text, std::size_t longest)
{
    if (text.size() <= longest) {
        return text;
    }
    const auto lastBlank = text.rfind(' ', longest);
    if (lastBlank != std::string::npos) {
        return std::string(trim(std::string_view(text).substr(0, lastBlank)));
    }
    constexpr unsigned kContinuationMask = 0xC0U;
    constexpr unsigned kContinuation = 0x80U;
    std::size_t end = longest;
    // A character of several bytes is taken whole or left.
    while (end > 0 && (static_cast<unsigned char>(text[end]) & kContinuationMask) == kContinuation) {
        --end;
    }
    return text.substr(0, end);
}

/** The last bytes of a text: those in which one machine differs from the next. */
std::string last_bytes(const std::string& text, std::size_t longest)
{
    return text.size() <= longest ? text : text.substr(text.size() - longest);
}

// Model, hyphen and serial number become the name of a network, which has 32 bytes at most.
constexpr std::size_t kLongestModel = 19;
constexpr std::size_t kLongestSerial = 12;

/** What a machine that says nothing of its model is called. */
constexpr const char* kUnknownModel = "Vantora";

} // namespace

std::string machine_model(const std::string& root)
{
    std::string model = read_word(root + "/proc/device-tree/model");
    if (model.empty()) {
        model = read_dmi_field(root + "/sys/class/dmi/id/product_name");
    }
    const std::string shortened = first_words(model, kLongestModel);
    return shortened.empty() ? kUnknownModel : shortened;
}

std::string machine_serial(const std::string& root)
{
    std::string serial = read_word(root + "/proc/device-tree/serial-number");
    if (serial.empty()) {
        serial = read_dmi_field(root + "/sys/class/dmi/id/product_serial");
    }
    if (serial.empty()) {
        serial = machine_id_digest(root + "/etc/machine-id");
    }
    return last_bytes(serial, kLongestSerial);
}

} // namespace KorrinInfo::detail
