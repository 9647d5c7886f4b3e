#include "redact.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <optional>

#include "text_lines.hpp"

namespace doctor {

namespace {

constexpr const char* kHidden = "***";

/** What the names of secrets hold, in small letters. */
constexpr auto kMarks = std::to_array<std::string_view>(
    {"pass", "psk", "secret", "pin", "key", "0kh", "1kh", "pw", "cak", "ckn", "csign", "connector",
     "milenage", "das_client", "dpp_configurator", "blob", "token", "credential"});

/** Names that hold one of those and are harmless, and tell much: what their values are is in no way secret.
 */
constexpr auto kHarmless = std::to_array<std::string_view>(
    {"key_mgmt", "wpa_key_mgmt", "wpa_group_rekey", "wpa_ptk_rekey", "wpa_gmk_rekey", "wpa_strict_rekey",
     "wpa_psk_file", "wep_rekey_period", "wep_default_key", "wep_tx_keyidx", "wpa_psk_radius",
     "ft_psk_generate_local"});

bool is_of_name(char letter)
{
    return std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '_' || letter == '-' ||
           letter == '.';
}

bool is_secret_name(std::string_view name)
{
    std::string small(name);
    std::ranges::transform(small, small.begin(), [](unsigned char letter) { return std::tolower(letter); });
    return std::ranges::find(kHarmless, small) == kHarmless.end() &&
           std::ranges::any_of(
               kMarks, [&small](std::string_view mark) { return small.find(mark) != std::string::npos; });
}

/** Where the value of the first secret on a line begins; nothing when the line holds none. */
std::optional<std::size_t> secret_begin(std::string_view line)
{
    for (std::size_t at = 0; at < line.size();) {
        if (!is_of_name(line[at])) {
            ++at;
            continue;
        }
        std::size_t end = at;
        while (end < line.size() && is_of_name(line[end])) {
            ++end;
        }
        const std::size_t sign = line.find_first_not_of(" \t", end);
        const bool named = sign != std::string_view::npos &&
                           std::string_view("=:'\"").find(line[sign]) != std::string_view::npos;
        if (named && is_secret_name(line.substr(at, end - at))) {
            const bool separator = line[sign] == '=' || line[sign] == ':';
            return separator ? sign + 1 : sign;
        }
        at = end;
    }
    return std::nullopt;
}

/** Whether a line without "=" has its place in a configuration: nothing, a comment, or the end of a block. */
bool is_harmless_without_key(std::string_view line)
{
    return line.empty() || line == "}" || line == "{" ||
           (line.front() == '#' && line.find_first_of("=:") == std::string_view::npos);
}

/** Follows the blocks whose lines are no keys and values: encoded certificates and keys. */
class Blocks
{
public:
    /** Whether the line is within one. */
    bool hides(std::string_view line)
    {
        if (end_.empty()) {
            if (line.find("-----BEGIN") != std::string_view::npos) {
                end_ = "-----END";
            } else if (line.find("blob-") != std::string_view::npos &&
                       line.find('{') != std::string_view::npos) {
                end_ = "}";
            } else {
                return false;
            }
            return true;
        }
        if (line.find(end_) != std::string_view::npos) {
            end_.clear();
        }
        return true;
    }

private:
    std::string end_;
};

std::string redacted_lines(std::string_view text, bool configuration)
{
    std::string result;
    Blocks blocks;
    for (const std::string& line : lines_of(text)) {
        const std::string_view bare = trimmed(line);
        const auto begin = secret_begin(line);
        const bool isOdd =
            configuration && line.find('=') == std::string::npos && !is_harmless_without_key(bare);
        if (blocks.hides(bare) || (!begin && isOdd)) {
            result += kHidden;
        } else if (begin) {
            result += line.substr(0, *begin) + kHidden;
        } else {
            result += line;
        }
        result += '\n';
    }
    return result;
}

} // namespace

std::string redacted(std::string_view text)
{
    return redacted_lines(text, true);
}

std::string redacted_output(std::string_view text)
{
    return redacted_lines(text, false);
}

Secrets Secrets::of_configuration(std::string_view text)
{
    Secrets secrets;
    for (const std::string& line : lines_of(text)) {
        if (const auto begin = secret_begin(line)) {
            const std::string_view value = trimmed(std::string_view(line).substr(*begin));
            secrets.add(value);
            secrets.add(value.substr(0, value.find('|'))); // of sae_password: what follows is no part of it
        }
    }
    return secrets;
}

void Secrets::add(std::string_view secret)
{
    constexpr std::size_t kLeast = 4;
    for (const std::string_view quotes : {"\"\"", "''"}) {
        if (secret.size() >= 2 && secret.front() == quotes.front() && secret.back() == quotes.back()) {
            add(secret.substr(1, secret.size() - 2));
        }
    }
    if (secret.size() < kLeast || std::ranges::find(values_, secret) != values_.end()) {
        return;
    }
    values_.emplace_back(secret);
    std::ranges::stable_sort(values_, std::ranges::greater(), &std::string::size);
}

void Secrets::add(const Secrets& others)
{
    for (const std::string& value : others.values_) {
        add(value);
    }
}

std::string Secrets::removed_from(std::string_view text) const
{
    std::string result(text);
    for (const std::string& value : values_) {
        for (std::size_t at = 0; (at = result.find(value, at)) != std::string::npos;
             at += std::string_view(kHidden).size()) {
            result.replace(at, value.size(), kHidden);
        }
    }
    return result;
}

} // namespace doctor
