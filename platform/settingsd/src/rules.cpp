#include "rules.hpp"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace settingsd {

namespace {

/** No tag and no zone comes near it. */
constexpr std::size_t kLongestName = 64;

// Not those of <cctype>, which go by the locale.

bool is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_letter_or_digit(char c)
{
    return is_letter(c) || (c >= '0' && c <= '9');
}

/** Takes what stands before the first of the separators, and the separator, off the text. */
std::string_view take_part(std::string_view& text, std::string_view separators)
{
    const auto end = text.find_first_of(separators);
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return part;
}

/** Whether all of the text's parts, of which there is one at least, are `good`. */
template <typename Good>
bool all_parts(std::string_view text, std::string_view separators, Good good)
{
    const bool endsInSeparator = !text.empty() && separators.find(text.back()) != std::string_view::npos;
    bool allGood = !text.empty() && !endsInSeparator;
    while (allGood && !text.empty()) {
        allGood = good(take_part(text, separators));
    }
    return allGood;
}

bool is_language(std::string_view text)
{
    constexpr std::size_t kShortest = 2;
    constexpr std::size_t kLongestPart = 8;
    constexpr std::size_t kLongestSuffix = 16;

    const auto isSuffix = [](std::string_view part) {
        return !part.empty() && part.size() <= kLongestSuffix &&
               std::all_of(part.begin(), part.end(),
                           [](char c) { return is_letter_or_digit(c) || c == '-'; });
    };
    const std::string_view tag = text.substr(0, text.find_first_of(".@"));
    const std::string_view suffixes = text.substr(tag.size());
    const std::string_view language = tag.substr(0, tag.find_first_of("-_"));
    return text.size() <= kLongestName && language.size() >= kShortest &&
           std::all_of(language.begin(), language.end(), is_letter) &&
           all_parts(tag, "-_",
                     [](std::string_view part) {
                         return !part.empty() && part.size() <= kLongestPart &&
                                std::all_of(part.begin(), part.end(), is_letter_or_digit);
                     }) &&
           (suffixes.empty() || all_parts(suffixes.substr(1), ".@", isSuffix));
}

bool is_time_zone(std::string_view text)
{
    return text.size() <= kLongestName && all_parts(text, "/", [](std::string_view part) {
               return !part.empty() && is_letter(part.front()) &&
                      std::all_of(part.begin(), part.end(), [](char c) {
                          return is_letter_or_digit(c) || c == '+' || c == '-' || c == '_';
                      });
           });
}

std::string refused_unless(bool allowed, const char* reason)
{
    return allowed ? std::string() : reason;
}

} // namespace

std::string refusal_of_mode(const Value& value)
{
    const auto& text = std::get<std::string>(value);
    return refused_unless(text == "Host" || text == "Client", R"(must be "Host" or "Client")");
}

std::string refusal_of_frequency(const Value& value)
{
    const auto& text = std::get<std::string>(value);
    return refused_unless(text == "2.4" || text == "5", R"(must be "2.4" or "5")");
}

std::string refusal_of_device_name(const Value& value)
{
    constexpr std::size_t kLongestSsid = 32;
    const auto& text = std::get<std::string>(value);
    return refused_unless(!text.empty() && text.size() <= kLongestSsid, "must have 1 to 32 bytes");
}

std::string refusal_of_brightness(const Value& value)
{
    const auto number = std::get<std::int32_t>(value);
    return refused_unless(number >= 0 && number <= 100, "must be 0 to 100");
}

std::string refusal_of_language(const Value& value)
{
    return refused_unless(is_language(std::get<std::string>(value)),
                          R"(must be a language such as "en" or "de-CH")");
}

std::string refusal_of_time_zone(const Value& value)
{
    return refused_unless(is_time_zone(std::get<std::string>(value)),
                          R"(must be a time zone such as "UTC" or "Europe/Zurich")");
}

} // namespace settingsd
