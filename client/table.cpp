#include "table.hpp"

#include <algorithm>

#include "text.hpp"

namespace client {

std::vector<std::string> Table::lines() const
{
    std::vector<std::size_t> widths;
    for (const auto& row : rows_) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], display_width(row[column].text));
        }
    }

    std::vector<std::string> lines;
    for (const auto& row : rows_) {
        std::string line;
        std::size_t owed = 0; // blanks that are due only if something follows
        for (std::size_t column = 0; column < row.size(); ++column) {
            const Cell& cell = row[column];
            if (!cell.text.empty()) {
                line.append(owed, ' ');
                line += cell.before + cell.text + cell.after;
                owed = 0;
            }
            owed += widths[column] - display_width(cell.text) + 2;
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

} // namespace client
