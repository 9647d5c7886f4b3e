#include <algorithm>
#include <chrono>
#include <string>

#include "commands.hpp"
#include "connect_progress.hpp"
#include "passphrase.hpp"
#include "text.hpp"
#include "words.hpp"

namespace client {

namespace {

using Phase = ConnectProgress::Phase;

/** How often the state is asked for: each question makes the daemon run two commands. */
constexpr std::chrono::milliseconds kPollInterval{300};

std::string text_of(const Json& value)
{
    return value.is_string() ? value.get<std::string>() : "";
}

/** One attempt to join a network, from the call to the address. */
class Attempt
{
public:
    Attempt(Daemon& daemon, Output& output, std::string ssid, std::string before, Deadline deadline)
        : daemon_(daemon), output_(output), ssid_(std::move(ssid)), progress_(std::move(before)),
          deadline_(deadline)
    {
    }

    std::optional<Failure> run(const std::string& passphrase)
    {
        if (auto failure = daemon_.follow(events(), deadline_)) {
            return failure;
        }
        if (auto failure = ask(passphrase)) {
            return failure;
        }
        while (!failure_ && address_.empty() && Clock::now() < deadline_) {
            poll();
            if (auto failure = daemon_.step(std::min(deadline_, nextPoll_))) {
                return failure;
            }
        }
        return outcome();
    }

    const std::string& address() const { return address_; }

private:
    Daemon::Events events()
    {
        Daemon::Events events;
        events.changed = [this](const std::string& property, const Json& value) {
            // What is announced before the answer to the call is about an earlier attempt.
            if (accepted_ && property == "WiFiClientState") {
                show(text_of(value), progress_.announced(text_of(value)));
            }
        };
        events.presence = [this](bool running) {
            if (!running) {
                failure_ = failure_of_daemon_gone();
            }
        };
        return events;
    }

    /** Calls Connect. Without waiting, so that its answer keeps its place among the announcements. */
    std::optional<Failure> ask(const std::string& passphrase)
    {
        daemon_.call_later(
            "Connect", {ssid_, passphrase},
            [this](const std::optional<Failure>& failure) {
                accepted_ = !failure;
                if (failure) {
                    failure_ = *failure;
                }
            },
            deadline_);
        while (!accepted_ && !failure_ && Clock::now() < deadline_) {
            if (auto failure = daemon_.step(deadline_)) {
                return failure;
            }
        }
        if (!accepted_ && !failure_) {
            return failure_of_time();
        }
        if (failure_ && failure_->daemonText == "Failed to connect to AP") {
            failure_->text = "wpa_supplicant did not take the network, or does not run";
        }
        return failure_ ? std::optional(with_advice(*failure_)) : std::nullopt;
    }

    /** Asks for what is not announced, one question at a time. */
    void poll()
    {
        if (asking_ || Clock::now() < nextPoll_) {
            return;
        }
        asking_ = true;
        const bool joined = progress_.phase() == Phase::Joined;
        daemon_.get_later(
            joined ? "IPAddress" : "WiFiClientState",
            [this, joined](Result<Json> answer) {
                asking_ = false;
                nextPoll_ = Clock::now() + kPollInterval;
                if (!answer) {
                    failure_ = failure_ ? failure_ : std::optional(answer.failure());
                } else if (!joined) {
                    show(text_of(answer.value()), progress_.polled(text_of(answer.value())));
                } else if (progress_.phase() == Phase::Joined) {
                    address_ = text_of(answer.value());
                }
            },
            deadline_);
        nextPoll_ = deadline_;
    }

    void show(const std::string& state, bool news)
    {
        if (!news) {
            return;
        }
        if (output_.json()) {
            output_.object("state", {{"state", state}});
        }
        const std::string meaning = state_meaning(state);
        output_.line("  " + padded(escaped(state), 16) + (meaning.empty() ? "" : "  " + meaning));
        if (progress_.phase() == Phase::Refused) {
            failure_ = Failure{ExitStatus::Refused, "\"" + ssid_ + "\" refused the passphrase", "", ""};
        } else if (progress_.phase() == Phase::Stopped) {
            failure_ =
                Failure{ExitStatus::Refused,
                        "the device stopped being a station in the middle of this: the radio or the mode was "
                        "switched",
                        "", ""};
        }
        nextPoll_ = std::min(nextPoll_, Clock::now());
    }

    std::optional<Failure> outcome() const
    {
        if (failure_ || !address_.empty()) {
            return failure_;
        }
        return Failure{ExitStatus::TimedOut,
                       waiting_reason(progress_.last_state(), ssid_) +
                           "; the device goes on trying until 'vantora-wifi disconnect'",
                       "", ""};
    }

    Daemon& daemon_;
    Output& output_;
    std::string ssid_;
    ConnectProgress progress_;
    Deadline deadline_;
    Deadline nextPoll_{};
    bool accepted_ = false;
    bool asking_ = false;
    std::string address_;
    std::optional<Failure> failure_;
};

} // namespace

std::optional<Failure> run_connect(Daemon& daemon, const Arguments& arguments, Output& output)
{
    // Before anybody types a passphrase: is there somebody to give it to?
    if (auto state = daemon.get("WiFiClientState", Clock::now() + arguments.timeout); !state) {
        return state.failure();
    }
    auto passphrase = read_passphrase(arguments);
    if (!passphrase) {
        return passphrase.failure();
    }

    const Deadline deadline = Clock::now() + arguments.timeout;
    auto before = daemon.get("WiFiClientState", deadline);
    if (!before) {
        return before.failure();
    }
    if (output.json()) {
        output.object("connecting", {{"ssid", arguments.value}});
    }
    output.line("Connecting to \"" + escaped(arguments.value) + "\"");
    Attempt attempt(daemon, output, arguments.value, text_of(before.value()), deadline);
    if (auto failure = attempt.run(passphrase.value())) {
        return failure;
    }
    if (output.json()) {
        output.object("connected", {{"ssid", arguments.value}, {"address", attempt.address()}});
    }
    output.line(output.terminal().styled(Style::Good, "Connected to \"" + escaped(arguments.value) +
                                                          "\", address " + escaped(attempt.address())));
    return std::nullopt;
}

} // namespace client
