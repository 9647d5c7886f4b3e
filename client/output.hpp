#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "failure.hpp"
#include "table.hpp"
#include "terminal.hpp"
#include "values.hpp"

namespace client {

/** Where results go: lines and tables for people, or one JSON object a line for programs. Every line leaves
 * at once. */
class Output
{
public:
    /** Takes the standard streams as they are; the locale must have been set. */
    explicit Output(bool json);

    /** Whether programs read this: then only object() prints. */
    bool json() const { return json_; }
    const Terminal& terminal() const { return out_; }

    /** For programs: an object of this type with these fields, ASCII only. */
    void object(const char* type, Json fields);

    /** For people: one line, which must be harmless already. */
    void line(const std::string& text);
    void table(const Table& table);

    /** For people: lines that take the place of those that this showed before, where the terminal can do
     * that; elsewhere they follow them, after an empty line. */
    void replace(const std::vector<std::string>& lines);

    /** For both: why the command failed. People find it on standard error, programs as the last object. */
    void failure(const Failure& failure);

    /** For both: what people should know and what does not end the command. They find it on standard error.
     */
    void warning(const std::string& text);

    /** Whether everything could be written. */
    bool complete() const { return complete_; }

private:
    void write(const std::string& line);
    void put(const std::string& text);

    bool json_;
    bool complete_ = true;
    bool inPlace_;
    std::size_t replaced_ = 0; // lines that stand there to be replaced
    Terminal out_;
    Terminal error_;
};

/** One JSON object as a line without line break: ASCII only, so that it is harmless to terminals, too. */
std::string json_line(const Json& object);

} // namespace client
