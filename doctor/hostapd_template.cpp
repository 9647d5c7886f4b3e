#include "hostapd_template.hpp"

#include <iterator>

#include "text_lines.hpp"

namespace doctor {

HostapdTemplate::HostapdTemplate(std::string_view text)
{
    std::size_t number = 0;
    for (const std::string& line : lines_of(text)) {
        read_line(line, ++number);
    }
}

void HostapdTemplate::read_line(const std::string& line, std::size_t number)
{
    if (line.empty() || line.front() == '#') {
        return;
    }
    const std::size_t equals = line.find('=');
    const std::string key = line.substr(0, equals);
    if (equals == std::string::npos) {
        flaws_.push_back({number, "has no \"=\"", true});
    } else if (line.back() == '\r') {
        flaws_.push_back({number, "ends with a carriage return, as files from another system do", true});
    } else if (key.empty() || key != trimmed(key)) {
        flaws_.push_back({number, "has a blank in front of its key or of the \"=\"", true});
    } else if (const auto before = entries_.find(key); before != entries_.end()) {
        flaws_.push_back(
            {number,
             "sets " + key + " again: line " + std::to_string(before->second.line) + " does not count",
             false});
    }
    entries_[key] = {line.substr(equals + 1), number};
}

std::string HostapdTemplate::value(const std::string& key) const
{
    const auto found = entries_.find(key);
    return found != entries_.end() ? found->second.value : std::string();
}

std::string HostapdTemplate::completed() const
{
    std::string text;
    for (const auto& [key, entry] : entries_) {
        text += key + "=" + entry.value.substr(0, entry.value.find('\n')) + "\n";
    }
    return text;
}

std::string HostapdTemplate::key_at(std::size_t line) const
{
    return line >= 1 && line <= entries_.size()
               ? std::next(entries_.begin(), static_cast<long>(line) - 1)->first
               : std::string();
}

} // namespace doctor
