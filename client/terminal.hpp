#pragma once

#include <cstdint>
#include <string>

namespace client {

enum class Style : std::uint8_t { Plain, Heading, Good, Bad, Faint };

/** What can be shown where one of the standard streams goes. */
class Terminal
{
public:
    Terminal(bool coloured, bool unicode) : coloured_(coloured), unicode_(unicode) {}

    /**
     * Looks at the stream behind the descriptor: colours on a terminal that knows them, never when NO_COLOR
     * is set; anything but ASCII in a UTF-8 locale.
     */
    static Terminal of(int descriptor);

    bool unicode() const { return unicode_; }
    bool coloured() const { return coloured_; }

    /** Whether the cursor can be moved where the descriptor leads: a terminal that is not dumb. */
    static bool can_move(int descriptor);

    /** What begins and ends a style; empty where there are no colours. */
    std::string before(Style style) const;
    std::string after(Style style) const;

    /** The text between them. */
    std::string styled(Style style, const std::string& text) const;

private:
    bool coloured_;
    bool unicode_;
};

} // namespace client
