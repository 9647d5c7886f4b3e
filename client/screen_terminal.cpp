#include "screen_terminal.hpp"

#include <algorithm>
#include <climits>
#include <clocale>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

// Macros of these names would be everywhere.
#define NCURSES_NOMACROS
#include <curses.h>

#include "support/signal_set.hpp"
#include "terminal.hpp"

namespace client {

namespace {

constexpr std::array kHeld = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGCONT, SIGWINCH};
constexpr std::array kCrashes = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
/** Escape alone is told from the beginning of a key's sequence by what follows within so many milliseconds.
 */
constexpr int kEscapeDelay = 50;
constexpr short kGoodPair = 1;
constexpr short kBadPair = 2;

// What a signal handler needs to give the terminal back; prepared before, as a handler can prepare nothing.
termios termiosBefore;
std::array<char, 128> goodbye{};
std::size_t goodbyeSize = 0;
volatile std::sig_atomic_t terminalTaken = 0;

/** For a program that crashes: only what may be called in a handler. */
void give_back_and_crash(int number)
{
    if (terminalTaken != 0) {
        terminalTaken = 0;
        [[maybe_unused]] const ssize_t written = ::write(STDOUT_FILENO, goodbye.data(), goodbyeSize);
        ::tcsetattr(STDIN_FILENO, TCSANOW, &termiosBefore);
    }
    // The handler is gone by now (SA_RESETHAND), so this ends the program as the crash would have.
    ::raise(number);
}

void prepare_goodbye()
{
    std::string text;
    for (const char* const name : {"sgr0", "cnorm", "rmcup"}) {
        const char* const sequence = ::tigetstr(name);
        if (sequence != nullptr && reinterpret_cast<std::intptr_t>(sequence) != -1) {
            text += sequence;
        }
    }
    goodbyeSize = std::min(text.size(), goodbye.size());
    std::memcpy(goodbye.data(), text.data(), goodbyeSize);
}

void catch_crashes()
{
    struct sigaction action = {};
    action.sa_handler = give_back_and_crash;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    for (const int number : kCrashes) {
        struct sigaction before = {};
        ::sigaction(number, nullptr, &before);
        if (before.sa_handler == SIG_DFL) { // a sanitizer's own handler says more than ours
            ::sigaction(number, &action, nullptr);
        }
    }
}

std::string utf8_of(wint_t character)
{
    std::array<char, MB_LEN_MAX> bytes{};
    std::mbstate_t state{};
    const std::size_t size = std::wcrtomb(bytes.data(), static_cast<wchar_t>(character), &state);
    return size == static_cast<std::size_t>(-1) ? "" : std::string(bytes.data(), size);
}

ScreenKey function_key(wint_t code)
{
    using Kind = ScreenKey::Kind;
    switch (code) {
    case KEY_UP:
        return {Kind::Up};
    case KEY_DOWN:
        return {Kind::Down};
    case KEY_PPAGE:
        return {Kind::PageUp};
    case KEY_NPAGE:
        return {Kind::PageDown};
    case KEY_HOME:
        return {Kind::Home};
    case KEY_END:
        return {Kind::End};
    case KEY_ENTER:
        return {Kind::Enter};
    case KEY_BACKSPACE:
        return {Kind::Backspace};
    default:
        return {Kind::Other};
    }
}

ScreenKey character_key(wint_t character)
{
    using Kind = ScreenKey::Kind;
    switch (character) {
    case L'\r':
    case L'\n':
        return {Kind::Enter};
    case 0x1b:
        return {Kind::Escape};
    case 0x08:
    case 0x7f:
        return {Kind::Backspace};
    default:
        break;
    }
    const std::string text = utf8_of(character);
    return character < 0x20 || text.empty() ? ScreenKey{} : ScreenKey{Kind::Text, text};
}

attr_t attributes_of(const ScreenSpan& span, bool coloured)
{
    attr_t attributes = span.inverse ? A_REVERSE : A_NORMAL;
    switch (span.style) {
    case Style::Heading:
        attributes |= A_BOLD;
        break;
    case Style::Faint:
        attributes |= A_DIM;
        break;
    case Style::Good:
        attributes |= coloured ? COLOR_PAIR(kGoodPair) : A_NORMAL;
        break;
    case Style::Bad:
        attributes |= coloured ? COLOR_PAIR(kBadPair) : A_BOLD;
        break;
    case Style::Plain:
        break;
    }
    return attributes;
}

} // namespace

ScreenTerminal::ScreenTerminal()
{
    if (!Terminal::can_move(STDOUT_FILENO) || ::tcgetattr(STDIN_FILENO, &termiosBefore) != 0) {
        return;
    }
    const sigset_t held = signal_set(kHeld);
    signals_ = UniqueFd(::signalfd(-1, &held, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals_) {
        return;
    }
    // Before the library, whose own handlers would give the terminal back and take it while we draw.
    ::sigprocmask(SIG_BLOCK, &held, nullptr);
    if (::newterm(nullptr, stdout, stdin) == nullptr) {
        ::sigprocmask(SIG_UNBLOCK, &held, nullptr);
        return;
    }
    usable_ = true;
    prepare_goodbye();
    terminalTaken = 1;
    catch_crashes();
    const Terminal seen = Terminal::of(STDOUT_FILENO);
    unicode_ = seen.unicode();
    coloured_ = !seen.before(Style::Good).empty() && ::has_colors();
    if (coloured_) {
        ::start_color();
        ::use_default_colors();
        ::init_pair(kGoodPair, COLOR_GREEN, -1);
        ::init_pair(kBadPair, COLOR_RED, -1);
    }
    ::cbreak();
    ::noecho();
    ::nonl();
    ::keypad(stdscr, TRUE);
    ::nodelay(stdscr, TRUE);
    ::set_escdelay(kEscapeDelay);
    ::curs_set(0);
}

ScreenTerminal::~ScreenTerminal()
{
    if (!usable_) {
        return;
    }
    ::endwin();
    terminalTaken = 0;
    // The library's handlers would end the program with a status of their own.
    for (const int number : {SIGINT, SIGTERM, SIGTSTP, SIGWINCH}) {
        std::signal(number, SIG_DFL);
    }
    const sigset_t held = signal_set(kHeld);
    ::sigprocmask(SIG_UNBLOCK, &held, nullptr);
}

std::array<pollfd, 2> ScreenTerminal::polled() const
{
    return {{{STDIN_FILENO, POLLIN, 0}, {signals_.get(), POLLIN, 0}}};
}

ScreenTerminal::Input ScreenTerminal::take()
{
    Input input;
    take_signals(input);
    if (input.ended == 0) {
        take_keys(input);
    }
    return input;
}

void ScreenTerminal::take_signals(Input& input)
{
    signalfd_siginfo info{};
    while (::read(signals_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        switch (info.ssi_signo) {
        case SIGTSTP:
            stop();
            [[fallthrough]];
        case SIGCONT: // also after a stop that nobody can see coming
            ::reset_prog_mode();
            ::clearok(curscr, TRUE);
            input.redraw = true;
            break;
        case SIGWINCH:
            input.redraw = true;
            break;
        default:
            input.ended = static_cast<int>(info.ssi_signo);
            return;
        }
    }
    if (input.redraw) {
        fit_window();
    }
}

void ScreenTerminal::take_keys(Input& input)
{
    wint_t character = 0;
    for (;;) {
        const int kind = ::wget_wch(stdscr, &character);
        if (kind == ERR) {
            // Nothing more, or nobody there any more: then every read says so.
            pollfd end{STDIN_FILENO, POLLIN, 0};
            if (::poll(&end, 1, 0) > 0 && (end.revents & (POLLHUP | POLLERR)) != 0) {
                input.ended = SIGHUP;
            }
            return;
        }
        input.keys.push_back(kind == KEY_CODE_YES ? function_key(character) : character_key(character));
    }
}

/** Gives the terminal back and stops, as the shell expects; returns when the program goes on. */
void ScreenTerminal::stop()
{
    ::endwin();
    terminalTaken = 0;
    std::signal(SIGTSTP, SIG_DFL); // the library's handler would give back and take, too
    const sigset_t one = signal_set({SIGTSTP});
    ::raise(SIGTSTP);
    ::sigprocmask(SIG_UNBLOCK, &one, nullptr); // stopped in here
    ::sigprocmask(SIG_BLOCK, &one, nullptr);
    terminalTaken = 1;
}

void ScreenTerminal::fit_window()
{
    winsize size = {};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
        ::resizeterm(size.ws_row, size.ws_col); // a window without a size is refused there
    }
}

void ScreenTerminal::draw(const ScreenModel& model) const
{
    const int rows = ::getmaxy(stdscr);
    const int columns = ::getmaxx(stdscr);
    const auto lines =
        draw_screen(model, static_cast<std::size_t>(rows), static_cast<std::size_t>(columns), unicode_);
    ::werase(stdscr);
    for (int row = 0; row < rows; ++row) {
        ::wmove(stdscr, row, 0);
        for (const ScreenSpan& span : lines[static_cast<std::size_t>(row)]) {
            ::wattrset(stdscr, static_cast<int>(attributes_of(span, coloured_)));
            ::waddnstr(stdscr, span.text.c_str(), -1);
        }
    }
    ::wrefresh(stdscr);
}

} // namespace client
