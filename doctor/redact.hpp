#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace doctor {

/**
 * A text of hostapd's, wpa_supplicant's or a log's without its secrets: from the first name of one on a line
 * to the end of that line everything is "***", whatever stands around it (blanks, quotes, a "#" in front,
 * other keys before it). Lines that hold a value without a key, and blocks of encoded keys, go as a whole. It
 * would rather hide too much.
 */
std::string redacted(std::string_view text);

/** The same for a text in which lines without a key are harmless, as in what a command prints. */
std::string redacted_output(std::string_view text);

/** Secrets that are known, to be taken out of texts that quote them without their names. */
class Secrets
{
public:
    /** Those that a configuration file holds. */
    static Secrets of_configuration(std::string_view text);

    /** Adds one, and what it is without quotes; a text of less than four bytes is none. */
    void add(std::string_view secret);
    void add(const Secrets& others);

    bool empty() const { return values_.empty(); }

    /** The text with "***" in place of each of them. */
    std::string removed_from(std::string_view text) const;

private:
    std::vector<std::string> values_; // the longest first: one may hold another
};

} // namespace doctor
