#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include <poll.h>

#include "screen_model.hpp"
#include "screen_view.hpp"
#include "support/unique_fd.hpp"

namespace client {

/**
 * The terminal while the screen has it. It is given back at every end: when this goes out of scope, at each
 * signal that ends the program, also at one that tells of a crash, and while the program is stopped (Ctrl-Z).
 */
class ScreenTerminal
{
public:
    /** What has come from the terminal or as a signal. */
    struct Input
    {
        std::vector<ScreenKey> keys{};
        bool redraw =
            false;     /**< the window has another size, or the terminal was somebody else's meanwhile */
        int ended = 0; /**< the signal that is to end the program; 0 for none */
    };

    ScreenTerminal();
    ScreenTerminal(const ScreenTerminal&) = delete;
    ScreenTerminal& operator=(const ScreenTerminal&) = delete;
    ~ScreenTerminal();

    /** Whether there is a terminal that can be drawn on; nothing else may be called otherwise. */
    bool is_usable() const { return usable_; }

    /** What to poll(2) for until there is something to take. */
    std::array<pollfd, 2> polled() const;

    /** Takes whatever has come, without waiting. At SIGTSTP the program is stopped in here. */
    Input take();

    /** Draws the model. */
    void draw(const ScreenModel& model) const;

private:
    void take_signals(Input& input);
    static void take_keys(Input& input);
    static void stop();
    static void fit_window();

    UniqueFd signals_;
    bool usable_ = false;
    bool coloured_ = false;
    bool unicode_ = false;
};

} // namespace client
