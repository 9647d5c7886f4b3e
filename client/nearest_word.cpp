#include "nearest_word.hpp"

#include <algorithm>
#include <cstddef>

namespace client {

namespace {

constexpr std::size_t kFurthest = 2;

/** Mistakes between two words, where two letters in the wrong order are one. */
std::size_t mistakes(const std::string& left, const std::string& right)
{
    std::vector<std::vector<std::size_t>> least(left.size() + 1, std::vector<std::size_t>(right.size() + 1));
    for (std::size_t row = 0; row <= left.size(); ++row) {
        for (std::size_t column = 0; column <= right.size(); ++column) {
            if (row == 0 || column == 0) {
                least[row][column] = row + column;
                continue;
            }
            const bool same = left[row - 1] == right[column - 1];
            least[row][column] = std::min({least[row - 1][column] + 1, least[row][column - 1] + 1,
                                           least[row - 1][column - 1] + (same ? 0 : 1)});
            const bool swapped = row > 1 && column > 1 && left[row - 1] == right[column - 2] &&
                                 left[row - 2] == right[column - 1];
            if (swapped) {
                least[row][column] = std::min(least[row][column], least[row - 2][column - 2] + 1);
            }
        }
    }
    return least[left.size()][right.size()];
}

} // namespace

std::string nearest_word(const std::string& typed, const std::vector<std::string>& words)
{
    std::string nearest;
    std::size_t least = kFurthest + 1;
    for (const std::string& word : words) {
        // As many mistakes as letters make any short word of any other.
        const std::size_t count = mistakes(typed, word);
        if (count == least) {
            nearest.clear();
        } else if (count < least && count < word.size()) {
            least = count;
            nearest = word;
        }
    }
    return nearest;
}

} // namespace client
