#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace doctor {

/**
 * Which interfaces connman takes, as far as its command line and its file tell. What is said again replaces
 * what was said before, as it does for connman.
 */
class ConnmanOptions
{
public:
    /** Reads its command line, whose first word is the program. */
    void add_command_line(const std::vector<std::string>& words);

    /** Reads its file, of which only the group [General] counts. */
    void add_file(std::string_view text);

    /** The file that the command line names; the usual one otherwise. */
    const std::string& file() const { return file_; }

    /** Whether it leaves an interface alone. */
    bool leaves_alone(std::string_view interface) const;

private:
    void add(std::string_view option, std::string_view value);

    std::string file_ = "/etc/connman/main.conf";
    std::optional<std::string> only_;
    std::string never_;
    std::string blacklist_;
};

} // namespace doctor
