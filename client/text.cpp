#include "text.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <optional>

#include <cwchar>

namespace client {

namespace {

/** One character of a text, or one byte that belongs to none. */
struct Unit
{
    std::optional<char32_t> character;
    std::size_t size = 1;
};

/** Reads the character at the beginning of the bytes, which are not empty, as RFC 3629 has it. */
Unit first_unit(std::string_view bytes)
{
    const auto byte = [&bytes](std::size_t index) { return static_cast<unsigned char>(bytes[index]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
        return {lead, 1};
    }
    struct Form
    {
        unsigned char mask;
        unsigned char mark;
        std::size_t size;
        char32_t least;
    };
    constexpr auto kForms =
        std::to_array<Form>({{0xe0, 0xc0, 2, 0x80}, {0xf0, 0xe0, 3, 0x800}, {0xf8, 0xf0, 4, 0x10000}});
    for (const Form& form : kForms) {
        if ((lead & form.mask) != form.mark || bytes.size() < form.size) {
            continue;
        }
        char32_t character = lead & static_cast<unsigned char>(~form.mask);
        for (std::size_t index = 1; index < form.size; ++index) {
            if ((byte(index) & 0xc0) != 0x80) {
                return {};
            }
            character = character << 6 | (byte(index) & 0x3f);
        }
        const bool surrogate = character >= 0xd800 && character <= 0xdfff;
        if (character < form.least || character > 0x10ffff || surrogate) {
            return {};
        }
        return {character, form.size};
    }
    return {};
}

int width_of(char32_t character)
{
    return ::wcwidth(static_cast<wchar_t>(character));
}

/** Characters that have no shape of their own but change how their neighbours look. */
bool deceives(char32_t character)
{
    struct Range
    {
        char32_t first;
        char32_t last;
    };
    constexpr auto kRanges = std::to_array<Range>({
        {0x00ad, 0x00ad},   // soft hyphen
        {0x061c, 0x061c},   // Arabic letter mark
        {0x115f, 0x1160},   // Hangul fillers
        {0x180b, 0x180e},   // Mongolian selectors
        {0x200b, 0x200f},   // zero width, directional marks
        {0x2028, 0x202e},   // line and paragraph separator, embeddings and overrides
        {0x2060, 0x206f},   // invisible operators, isolates
        {0x3164, 0x3164},   // Hangul filler
        {0xfe00, 0xfe0f},   // variation selectors
        {0xfeff, 0xfeff},   // zero width no-break blank
        {0xfff9, 0xfffb},   // interlinear annotation
        {0xe0000, 0xe0fff}, // tags, selectors
    });
    return std::ranges::any_of(kRanges, [character](const Range& range) {
        return character >= range.first && character <= range.last;
    });
}

std::string formatted(const char* format, unsigned int number)
{
    std::array<char, 16> text{};
    // The format is one of this file's own.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::snprintf(text.data(), text.size(), format, number);
#pragma GCC diagnostic pop
    return text.data();
}

} // namespace

std::string escaped(std::string_view bytes)
{
    std::string text;
    bool base = false; // is there anything that a combining mark could stand on?
    while (!bytes.empty()) {
        const Unit unit = first_unit(bytes);
        const std::string_view raw = bytes.substr(0, unit.size);
        bytes.remove_prefix(unit.size);
        if (!unit.character) {
            text += formatted("\\x%02x", static_cast<unsigned char>(raw.front()));
            base = true;
            continue;
        }
        const char32_t character = *unit.character;
        const int width = width_of(character);
        if (character == U'\\') {
            text += "\\\\";
        } else if (character == U'\n') {
            text += "\\n";
        } else if (character == U'\t') {
            text += "\\t";
        } else if (character < 0x20 || character == 0x7f) {
            text += formatted("\\x%02x", character);
        } else if (width < 0 || deceives(character) || (width == 0 && !base)) {
            text += formatted("\\u{%x}", character);
        } else {
            text += raw;
        }
        base = true;
    }
    return text;
}

std::size_t display_width(std::string_view text)
{
    std::size_t columns = 0;
    while (!text.empty()) {
        const Unit unit = first_unit(text);
        const int width = unit.character ? width_of(*unit.character) : 1;
        columns += width > 0 ? static_cast<std::size_t>(width) : 0;
        text.remove_prefix(unit.size);
    }
    return columns;
}

std::string fitted(std::string_view text, std::size_t columns)
{
    std::string result;
    while (!text.empty()) {
        const Unit unit = first_unit(text);
        const int width = unit.character ? std::max(width_of(*unit.character), 0) : 1;
        if (static_cast<std::size_t>(width) > columns) {
            break;
        }
        columns -= static_cast<std::size_t>(width);
        result += text.substr(0, unit.size);
        text.remove_prefix(unit.size);
    }
    return result;
}

std::string padded(std::string_view text, std::size_t columns)
{
    const std::size_t width = display_width(text);
    std::string result(text);
    result.append(width < columns ? columns - width : 0, ' ');
    return result;
}

} // namespace client
