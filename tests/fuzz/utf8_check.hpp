#pragma once

#include <cstdint>
#include <string_view>

namespace fuzz {

/**
 * Whether D-Bus carries these bytes as a text: UTF-8 by the table of RFC 3629 (written here a second time, so
 * that the code under test is not its own judge), without NUL and without Unicode's non-characters.
 */
inline bool is_valid_text(std::string_view text)
{
    struct Row
    {
        uint8_t first, firstEnd, second, secondEnd;
        size_t length;
    };
    static constexpr Row kTable[] = {
        {0x01, 0x7F, 0, 0, 1},       {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3},
        {0xE1, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3},
        {0xF0, 0xF0, 0x90, 0xBF, 4}, {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4}};

    while (!text.empty()) {
        const auto at = [text](size_t i) { return static_cast<uint8_t>(text[i]); };
        const Row* fitting = nullptr;
        for (const Row& row : kTable) {
            if (at(0) >= row.first && at(0) <= row.firstEnd && text.size() >= row.length &&
                (row.length == 1 || (at(1) >= row.second && at(1) <= row.secondEnd))) {
                fitting = &row;
            }
        }
        if (fitting == nullptr) {
            return false;
        }
        uint32_t code = fitting->length == 1 ? at(0) : at(0) & (0x7FU >> fitting->length);
        for (size_t i = 1; i < fitting->length; ++i) {
            if ((at(i) & 0xC0U) != 0x80) {
                return false;
            }
            code = (code << 6U) | (at(i) & 0x3FU);
        }
        if ((code >= 0xFDD0 && code <= 0xFDEF) || (code & 0xFFFEU) == 0xFFFEU) {
            return false;
        }
        text.remove_prefix(fitting->length);
    }
    return true;
}

} // namespace fuzz
