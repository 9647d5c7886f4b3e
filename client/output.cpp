#include "output.hpp"

#include <algorithm>
#include <cstdio>
#include <utility>

#include <sys/ioctl.h>
#include <unistd.h>

#include "text.hpp"
#include "words.hpp"

namespace client {

namespace {

/** Lines of the terminal's window; at least 3, and 24 when nobody knows. */
std::size_t rows_of(int descriptor)
{
    constexpr std::size_t kUsual = 24;
    winsize size = {};
    const bool known = ::ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
    return known ? std::max<std::size_t>(size.ws_row, 3) : kUsual;
}

} // namespace

Output::Output(bool json)
    : json_(json), inPlace_(Terminal::can_move(STDOUT_FILENO)), out_(Terminal::of(STDOUT_FILENO)),
      error_(Terminal::of(STDERR_FILENO))
{
}

void Output::object(const char* type, Json fields)
{
    fields["type"] = type;
    write(json_line(fields));
}

void Output::line(const std::string& text)
{
    if (!json_) {
        write(text);
    }
}

void Output::table(const Table& table)
{
    for (const std::string& text : table.lines()) {
        line(text);
    }
}

void Output::replace(const std::vector<std::string>& lines)
{
    if (json_) {
        return;
    }
    if (!inPlace_) {
        if (std::exchange(replaced_, lines.size()) > 0) {
            write("");
        }
        for (const std::string& text : lines) {
            write(text);
        }
        return;
    }
    // What does not fit is cut off: a line that wraps, or one that scrolls away, could not be found again.
    const std::size_t room = rows_of(STDOUT_FILENO) - 1;
    const std::size_t fitting = lines.size() > room ? room - 1 : lines.size();
    std::string drawn = replaced_ == 0 ? "" : "\033[" + std::to_string(replaced_) + "A";
    drawn += "\r\033[J\033[?7l";
    for (std::size_t index = 0; index < fitting; ++index) {
        drawn += lines[index] + "\n";
    }
    if (fitting < lines.size()) {
        drawn += "... and " + std::to_string(lines.size() - fitting) + " lines more\n";
    }
    drawn += "\033[?7h";
    replaced_ = std::min(lines.size(), room);
    put(drawn);
}

void Output::failure(const Failure& failure)
{
    if (json_) {
        object("error", {{"status", static_cast<int>(failure.status)},
                         {"text", failure.text},
                         {"daemon_error", failure.errorName},
                         {"daemon_text", failure.daemonText}});
        return;
    }
    std::fprintf(stderr, "vantora-wifi: %s\n", error_.styled(Style::Bad, told(failure)).c_str());
}

void Output::warning(const std::string& text)
{
    if (json_) {
        object("warning", {{"text", text}});
        return;
    }
    std::fprintf(stderr, "vantora-wifi: %s\n", escaped(text).c_str());
}

void Output::write(const std::string& line)
{
    put(line + "\n");
}

void Output::put(const std::string& text)
{
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
        complete_ = false;
    }
}

std::string json_line(const Json& object)
{
    return object.dump(-1, ' ', true, Json::error_handler_t::replace);
}

} // namespace client
