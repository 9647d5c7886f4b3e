#include "passphrase.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include "support/signal_set.hpp"
#include "support/unique_fd.hpp"
#include "support/utf8.hpp"
#include "text.hpp"

namespace client {

namespace {

constexpr std::size_t kLongestLine = 4096;

Failure wrong(const std::string& text)
{
    return {ExitStatus::Usage, text, "", ""};
}

volatile std::sig_atomic_t caughtSignal = 0;

void note_signal(int number)
{
    caughtSignal = number;
}

/**
 * While this lives, signals that would end or stop the program are held back, and only interrupt
 * wait_for_input(), so that the echo comes back first.
 */
class SignalsHeld
{
public:
    SignalsHeld()
    {
        caughtSignal = 0;
        struct sigaction action = {};
        action.sa_handler = note_signal;
        const sigset_t held = signal_set(kSignals);
        ::sigprocmask(SIG_BLOCK, &held, &maskBefore_);
        for (std::size_t index = 0; index < kSignals.size(); ++index) {
            ::sigaction(kSignals[index], nullptr, &before_[index]);
            // What is ignored, as under nohup(1), stays ignored.
            if (before_[index].sa_handler != SIG_IGN) {
                ::sigaction(kSignals[index], &action, nullptr);
            }
        }
    }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;
    ~SignalsHeld()
    {
        for (std::size_t index = 0; index < kSignals.size(); ++index) {
            ::sigaction(kSignals[index], &before_[index], nullptr);
        }
        ::sigprocmask(SIG_SETMASK, &maskBefore_, nullptr);
    }

    /** Returns true when there is something to read, false when a signal came first. */
    bool wait_for_input() const
    {
        pollfd input{STDIN_FILENO, POLLIN, 0};
        return ::ppoll(&input, 1, nullptr, &maskBefore_) > 0;
    }

private:
    static constexpr auto kSignals = std::to_array<int>({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP});
    std::array<struct sigaction, kSignals.size()> before_{};
    sigset_t maskBefore_{};
};

/** While this lives, the terminal shows nothing of what is typed but the end of the line. */
class EchoOff
{
public:
    EchoOff() : usable_(::tcgetattr(STDIN_FILENO, &before_) == 0)
    {
        termios silent = before_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        silent.c_lflag |= ECHONL;
        usable_ = usable_ && ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) == 0;
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;
    ~EchoOff()
    {
        if (usable_) {
            ::tcsetattr(STDIN_FILENO, TCSADRAIN, &before_);
        }
    }

    bool usable() const { return usable_; }

private:
    termios before_{};
    bool usable_;
};

/** The first line behind a descriptor. */
Result<std::string> read_line(int descriptor, const std::string& origin)
{
    std::string line;
    while (line.size() <= kLongestLine) {
        char character = 0;
        const ssize_t count = ::read(descriptor, &character, 1);
        if (count < 0) {
            return wrong(origin + " cannot be read: " + std::strerror(errno));
        }
        if (count == 0 || character == '\n') {
            break;
        }
        line += character;
    }
    if (line.ends_with('\r')) {
        line.pop_back();
    }
    return line;
}

Result<std::string> ask_once(const std::string& ssid)
{
    const SignalsHeld signals;
    const EchoOff echo;
    if (!echo.usable()) {
        return wrong("the terminal cannot be kept from showing the passphrase; use --passphrase-file");
    }
    std::fprintf(stderr, "Passphrase for \"%s\": ", escaped(ssid).c_str());
    if (!signals.wait_for_input()) {
        return std::string();
    }
    return read_line(STDIN_FILENO, "the terminal");
}

/** Asks on the terminal. After a pause (Ctrl-Z) it asks again; a signal that ends the program does so with
 * the echo back. */
Result<std::string> ask(const std::string& ssid)
{
    if (::isatty(STDIN_FILENO) == 0) {
        return wrong(
            "there is no terminal to ask for the passphrase; use --passphrase-file, --passphrase-stdin or "
            "--open");
    }
    for (;;) {
        auto answer = ask_once(ssid);
        if (caughtSignal == 0) {
            return answer;
        }
        std::fputc('\n', stderr);
        ::raise(caughtSignal);
    }
}

Result<std::string> read_from(const Arguments& arguments)
{
    switch (arguments.passphrase) {
    case PassphraseSource::File: {
        const UniqueFd file(::open(arguments.passphraseFile.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file) {
            return wrong(arguments.passphraseFile + ": " + std::strerror(errno));
        }
        return read_line(file.get(), arguments.passphraseFile);
    }
    case PassphraseSource::StandardInput:
        return read_line(STDIN_FILENO, "standard input");
    case PassphraseSource::Prompt:
        return ask(arguments.value);
    case PassphraseSource::None:
        break;
    }
    return std::string();
}

} // namespace

std::string passphrase_fault(const std::string& passphrase)
{
    if (passphrase.empty()) {
        return "the passphrase is empty; a network without one is joined with --open";
    }
    if (passphrase.size() < 8 || passphrase.size() > 63) {
        return "a passphrase has 8 to 63 characters, this one has " + std::to_string(passphrase.size());
    }
    return is_bus_text(passphrase) ? "" : "the passphrase is not text";
}

Result<std::string> read_passphrase(const Arguments& arguments)
{
    auto passphrase = read_from(arguments);
    if (!passphrase || arguments.passphrase == PassphraseSource::None) {
        return passphrase;
    }
    if (const std::string fault = passphrase_fault(passphrase.value()); !fault.empty()) {
        return wrong(fault);
    }
    return passphrase;
}

} // namespace client
