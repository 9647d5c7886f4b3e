#include "client/text.hpp"

#include <clocale>
#include <optional>

#include "fuzz_input.hpp"
#include "utf8_check.hpp"

// What the command-line client shows of the name of a stranger's network: harmless, on one line, and
// unambiguous, which is to say that the bytes can be had back from it.

namespace {

void append_utf8(std::string& text, uint32_t code)
{
    const auto add = [&text](uint32_t byte) { text += static_cast<char>(byte); };
    if (code < 0x80) {
        add(code);
    } else if (code < 0x800) {
        add(0xC0U | code >> 6U);
        add(0x80U | (code & 0x3FU));
    } else if (code < 0x10000) {
        add(0xE0U | code >> 12U);
        add(0x80U | (code >> 6U & 0x3FU));
        add(0x80U | (code & 0x3FU));
    } else {
        add(0xF0U | code >> 18U);
        add(0x80U | (code >> 12U & 0x3FU));
        add(0x80U | (code >> 6U & 0x3FU));
        add(0x80U | (code & 0x3FU));
    }
}

/** Reads one escape, whose backslash has been taken, from the start of the text. */
bool unescape_one(std::string_view& text, std::string& bytes)
{
    if (text.empty()) {
        return false;
    }
    const char kind = text.front();
    text.remove_prefix(1);
    switch (kind) {
    case '\\':
        bytes += '\\';
        return true;
    case 'n':
        bytes += '\n';
        return true;
    case 't':
        bytes += '\t';
        return true;
    case 'x': {
        const std::string digits(text.substr(0, 2));
        text.remove_prefix(digits.size());
        bytes += static_cast<char>(std::strtoul(digits.c_str(), nullptr, 16));
        return digits.size() == 2;
    }
    case 'u': {
        const size_t end = text.find('}');
        if (text.empty() || text.front() != '{' || end == std::string_view::npos) {
            return false;
        }
        const std::string digits(text.substr(1, end - 1));
        append_utf8(bytes, static_cast<uint32_t>(std::strtoul(digits.c_str(), nullptr, 16)));
        text.remove_prefix(end + 1);
        return true;
    }
    default:
        return false;
    }
}

std::optional<std::string> unescaped(std::string_view text)
{
    std::string bytes;
    while (!text.empty()) {
        const char character = text.front();
        text.remove_prefix(1);
        if (character != '\\') {
            bytes += character;
        } else if (!unescape_one(text, bytes)) {
            return std::nullopt;
        }
    }
    return bytes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool kLocaleSet = std::setlocale(LC_ALL, "C.UTF-8") != nullptr;
    fuzz::require(kLocaleSet, "there is a locale with UTF-8");

    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const std::string text = client::escaped(bytes);
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        fuzz::require(code >= 0x20 && code != 0x7F, "no control character is left");
    }
    fuzz::require(fuzz::is_valid_text(text), "it is a text");
    fuzz::require(unescaped(text) == bytes, "the bytes can be had back");

    const size_t width = client::display_width(text);
    fuzz::require(width <= text.size(), "no character is wider than its bytes are many");
    fuzz::require(client::display_width(client::padded(text, width + 5)) == width + 5, "padding fills up");
    fuzz::require(client::padded(text, width) == text, "and adds no more than is missing");
    return 0;
}
