#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <optional>

#include "commands.hpp"
#include "follower.hpp"
#include "screen_model.hpp"
#include "screen_terminal.hpp"

namespace client {

namespace {

using Action = ScreenAction::Kind;

/** How often the state is asked for during an attempt to join. */
constexpr std::chrono::milliseconds kPollInterval{300};

/** Holds daemon, model and terminal together. */
class Screen
{
public:
    Screen(Daemon& daemon, const Arguments& arguments, ScreenTerminal& terminal)
        : daemon_(daemon), timeout_(arguments.timeout), terminal_(terminal),
          follower_(
              daemon, arguments.timeout, [this] { dirty_ = true; },
              [this](const std::string& text) {
                  model_.tell(text, true);
                  dirty_ = true;
              })
    {
    }

    /** Goes on until somebody leaves; the failure when the bus is lost. */
    std::optional<Failure> run()
    {
        if (auto failure = follower_.begin()) {
            return failure;
        }
        while (!left_ && signal_ == 0) {
            look();
            poll();
            auto polled = terminal_.polled();
            const Deadline next = model_.is_joining() ? nextPoll_ : kNever;
            if (auto failure = daemon_.step(std::min(follower_.next(), next), polled)) {
                return failure;
            }
            take(terminal_.take());
        }
        return std::nullopt;
    }

    /** The signal that is to end the program, or 0. */
    int ended_by() const { return signal_; }

private:
    /** Draws when something has changed, or has not for too long. */
    void look()
    {
        const bool silent = follower_.is_silent(Clock::now());
        if (!dirty_ && silent == silent_) {
            return;
        }
        silent_ = silent;
        dirty_ = false;
        model_.update({.fields = follower_.fields(),
                       .networks = follower_.networks(),
                       .running = follower_.is_running(),
                       .silent = silent,
                       .complete = follower_.is_complete()});
        terminal_.draw(model_);
    }

    /** Asks how far an attempt to join has come, when the last answer is there. */
    void poll()
    {
        if (model_.is_joining() && Clock::now() >= nextPoll_) {
            nextPoll_ = Clock::now() + kPollInterval;
            if (follower_.is_complete()) {
                follower_.look_at("WiFiClientState");
            }
        }
    }

    void take(const ScreenTerminal::Input& input)
    {
        signal_ = input.ended;
        dirty_ = dirty_ || input.redraw || !input.keys.empty();
        for (const ScreenKey& key : input.keys) {
            act(model_.press(key));
        }
    }

    void act(const ScreenAction& action)
    {
        const Deadline deadline = Clock::now() + timeout_;
        const auto done = [this, action](const std::optional<Failure>& failure) {
            model_.answered(action, failure);
            follower_.refresh();
            dirty_ = true;
        };
        switch (action.kind) {
        case Action::None:
            break;
        case Action::Leave:
            left_ = true;
            break;
        case Action::Scan:
            daemon_.call_later("Scan", {}, done, deadline);
            break;
        case Action::Connect:
            daemon_.call_later("Connect", {action.ssid, action.passphrase}, done, deadline);
            break;
        case Action::Disconnect:
            daemon_.call_later("Disconnect", {}, done, deadline);
            break;
        case Action::Mode:
            daemon_.set_later("Mode", 's', action.value, done, deadline);
            break;
        case Action::Radio:
            daemon_.set_later("WiFiState", 'u', action.value, done, deadline);
            break;
        }
    }

    Daemon& daemon_;
    std::chrono::milliseconds timeout_;
    ScreenTerminal& terminal_;
    ScreenModel model_;
    Follower follower_;
    Deadline nextPoll_{};
    bool dirty_ = true;
    bool silent_ = false;
    bool left_ = false;
    int signal_ = 0;
};

} // namespace

std::optional<Failure> run_screen(Daemon& daemon, const Arguments& arguments, Output&)
{
    int signal = 0;
    {
        ScreenTerminal terminal;
        if (!terminal.is_usable()) {
            return Failure{ExitStatus::Usage,
                           "this terminal cannot be drawn on; 'vantora-wifi --help' tells what else there is",
                           "", ""};
        }
        Screen screen(daemon, arguments, terminal);
        if (auto failure = screen.run()) {
            return failure;
        }
        signal = screen.ended_by();
    }
    if (signal != 0) {
        ::raise(signal); // as if it had not been held back
    }
    return std::nullopt;
}

} // namespace client
