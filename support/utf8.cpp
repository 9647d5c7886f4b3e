#include "support/utf8.hpp"

#include <cstdint>

namespace {

bool is_continuation(unsigned char byte)
{
    return (byte & 0xC0U) == 0x80U;
}

/** Code points that UTF-8 can encode but libsystemd refuses in a text: surrogates and non-characters. */
bool is_refused(uint32_t code)
{
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    const bool nonCharacter = (code >= 0xFDD0 && code <= 0xFDEF) || (code & 0xFFFEU) == 0xFFFEU;
    return code > 0x10FFFF || surrogate || nonCharacter;
}

/** Length of the valid UTF-8 sequence at the start of `bytes`, which is not empty; 0 when there is none. */
size_t sequence_length(std::string_view bytes)
{
    const auto at = [&](size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const unsigned char first = at(0);
    if (first < 0x80) {
        return first != 0 ? 1 : 0;
    }
    size_t length = 0;
    uint32_t lowest = 0;
    uint32_t code = 0;
    if ((first & 0xE0U) == 0xC0) {
        length = 2;
        lowest = 0x80;
        code = first & 0x1FU;
    } else if ((first & 0xF0U) == 0xE0) {
        length = 3;
        lowest = 0x800;
        code = first & 0x0FU;
    } else if ((first & 0xF8U) == 0xF0) {
        length = 4;
        lowest = 0x10000;
        code = first & 0x07U;
    }
    if (length == 0 || bytes.size() < length) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if (!is_continuation(at(i))) {
            return 0;
        }
        code = (code << 6U) | (at(i) & 0x3FU);
    }
    return code < lowest || is_refused(code) ? 0 : length;
}

} // namespace

bool is_bus_text(std::string_view bytes)
{
    while (!bytes.empty()) {
        const size_t length = sequence_length(bytes);
        if (length == 0) {
            return false;
        }
        bytes.remove_prefix(length);
    }
    return true;
}

std::string utf8_text(std::string_view bytes, std::string_view replacement)
{
    std::string text;
    text.reserve(bytes.size());
    while (!bytes.empty()) {
        const size_t length = sequence_length(bytes);
        if (length == 0) {
            text += replacement;
            bytes.remove_prefix(1);
        } else {
            text += bytes.substr(0, length);
            bytes.remove_prefix(length);
        }
    }
    return text;
}
