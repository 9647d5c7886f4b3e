#include "qr_code.hpp"

#include <memory>

#include <qrencode.h>

#include "support/sd_bus_owners.hpp"

namespace doctor {

namespace {

using Code = std::unique_ptr<QRcode, ReleaseWith<QRcode_free>>;

/** The squares of a code; what lies around it is bright. */
class Squares
{
public:
    explicit Squares(const QRcode& code) : code_(code) {}

    static constexpr int kEdge = 4;

    int size() const { return code_.width + 2 * kEdge; }

    bool is_dark(int row, int column) const
    {
        const int y = row - kEdge;
        const int x = column - kEdge;
        return y >= 0 && x >= 0 && y < code_.width && x < code_.width &&
               (code_.data[y * code_.width + x] & 1) != 0;
    }

private:
    const QRcode& code_;
};

/** One line of two rows: a half block is bright above, or below. */
std::string line_of_blocks(const Squares& squares, int row)
{
    std::string line;
    for (int column = 0; column < squares.size(); ++column) {
        const bool above = !squares.is_dark(row, column);
        const bool below = row + 1 < squares.size() && !squares.is_dark(row + 1, column);
        if (above) {
            line += below ? "█" : "▀";
        } else {
            line += below ? "▄" : " ";
        }
    }
    return line;
}

std::string line_of_letters(const Squares& squares, int row)
{
    std::string line;
    for (int column = 0; column < squares.size(); ++column) {
        line += squares.is_dark(row, column) ? "  " : "##";
    }
    return line;
}

} // namespace

std::string drawn_code(const std::string& text, const client::Terminal& terminal)
{
    const Code code(QRcode_encodeData(static_cast<int>(text.size()),
                                      reinterpret_cast<const unsigned char*>(text.data()), 0, QR_ECLEVEL_M));
    if (!code) {
        return {};
    }
    const Squares squares(*code);
    // The bright squares are drawn in the colour of letters: white on black, whatever the terminal's own are.
    const std::string begin = terminal.coloured() ? "\033[97;40m" : "";
    const std::string end = terminal.coloured() ? "\033[0m" : "";
    std::string lines;
    for (int row = 0; row < squares.size(); row += terminal.unicode() ? 2 : 1) {
        lines += begin;
        lines += terminal.unicode() ? line_of_blocks(squares, row) : line_of_letters(squares, row);
        lines += end;
        lines += '\n';
    }
    return lines;
}

} // namespace doctor
