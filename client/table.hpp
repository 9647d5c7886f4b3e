#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace client {

/** A table for people: columns as wide as their widest cell, two blanks between them. */
class Table
{
public:
    /** What stands in one place: harmless text, and what surrounds it on a terminal (colours), which takes no
     * column. */
    struct Cell
    {
        std::string text;
        std::string before;
        std::string after;
    };

    /** Adds a row below the others; rows may differ in length. */
    void add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }

    /** The rows as lines, without blanks at their ends and without line breaks. */
    std::vector<std::string> lines() const;

private:
    std::vector<std::vector<Cell>> rows_;
};

} // namespace client
