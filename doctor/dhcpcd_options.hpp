#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace doctor {

/** Which interfaces dhcpcd takes, as far as its command line and its file tell. */
class DhcpcdOptions
{
public:
    /** Reads its command line, whose first word is the program. */
    void add_command_line(const std::vector<std::string>& words);

    /** Reads its file, up to the first line from which on it speaks of one interface or network only. */
    void add_file(std::string_view text);

    /** The file that the command line names; the usual one otherwise. */
    const std::string& file() const { return file_; }

    /** Whether it leaves an interface alone. */
    bool leaves_alone(const char* interface) const;

private:
    void add(std::string_view option, std::string_view value);

    std::string file_ = "/etc/dhcpcd.conf";
    std::string denied_;
    std::string allowed_;
};

} // namespace doctor
