#include "output.hpp"

#include <cstdio>

#include <unistd.h>

#include "words.hpp"

namespace client {

Output::Output(bool json)
    : json_(json), out_(Terminal::of(STDOUT_FILENO)), error_(Terminal::of(STDERR_FILENO))
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

void Output::write(const std::string& line)
{
    const bool written = std::fputs(line.c_str(), stdout) >= 0 && std::fputc('\n', stdout) != EOF;
    if (!written || std::fflush(stdout) != 0) {
        complete_ = false;
    }
}

std::string json_line(const Json& object)
{
    return object.dump(-1, ' ', true, Json::error_handler_t::replace);
}

} // namespace client
