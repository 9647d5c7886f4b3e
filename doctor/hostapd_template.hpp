#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace doctor {

/**
 * hostapd's template, read as the daemon reads it: of each key the last value counts, a comment is a line
 * whose first character is "#", and a line without "=" is a key with itself as value.
 */
class HostapdTemplate
{
public:
    struct Entry
    {
        std::string value;
        std::size_t line = 0; /**< of the template, from 1; 0 for what the daemon puts in */
    };

    /** A line that cannot be what was meant. */
    struct Flaw
    {
        std::size_t line = 0;
        std::string text;   /**< what is wrong, without the line's contents: they may be a secret */
        bool fatal = false; /**< whether hostapd refuses it */
    };

    explicit HostapdTemplate(std::string_view text);

    const std::map<std::string, Entry>& entries() const { return entries_; }
    const std::vector<Flaw>& flaws() const { return flaws_; }

    /** The value of a key; empty when it is not there. */
    std::string value(const std::string& key) const;
    bool has(const std::string& key) const { return entries_.contains(key); }

    /** Puts a value in, as the daemon does with ssid, hw_mode and acs_blacklist. */
    void put(const std::string& key, const std::string& value) { entries_[key] = {value, 0}; }
    void remove(const std::string& key) { entries_.erase(key); }

    /** The file that the daemon makes of it: sorted by key, a value cut at its first line break. */
    std::string completed() const;

    /** The key that stands on this line of the completed file, from 1; empty when there is no such line. */
    std::string key_at(std::size_t line) const;

private:
    void read_line(const std::string& line, std::size_t number);

    std::map<std::string, Entry> entries_;
    std::vector<Flaw> flaws_;
};

} // namespace doctor
