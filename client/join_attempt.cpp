#include "join_attempt.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "text.hpp"
#include "words.hpp"

namespace client {

namespace {

using Phase = ConnectProgress::Phase;
using std::chrono::milliseconds;

/** How often the state is asked for: each question makes the daemon run two commands. */
constexpr milliseconds kPollInterval{300};
/** For so long a station that does not take a network may just be starting. */
constexpr milliseconds kStarting{10'000};
constexpr milliseconds kAskAgain{500};

} // namespace

JoinAttempt::JoinAttempt(Daemon& daemon, Output& output, std::string ssid, std::string before,
                         Deadline deadline)
    : daemon_(daemon), output_(output), ssid_(std::move(ssid)), progress_(std::move(before)),
      deadline_(deadline), patience_(std::min(deadline, Clock::now() + kStarting))
{
}

std::optional<Failure> JoinAttempt::run(const std::string& passphrase, const Interrupts& interrupts)
{
    interrupts_ = &interrupts;
    if (auto failure = daemon_.follow(events(), deadline_)) {
        return failure;
    }
    if (auto failure = ask(passphrase)) {
        return failure;
    }
    while (signal_ == 0 && !failure_ && address_.empty() && Clock::now() < deadline_) {
        poll();
        if (auto failure = step(std::min(deadline_, nextPoll_))) {
            return failure;
        }
    }
    return signal_ == 0 ? outcome() : std::nullopt;
}

std::string JoinAttempt::way_to_end() const
{
    return client::way_to_end(progress_.last_state());
}

Daemon::Events JoinAttempt::events()
{
    Daemon::Events events;
    events.changed = [this](const std::string& property, const Json& value) {
        // What is announced before the answer to the call is about an earlier attempt.
        if (accepted_ && property == "WiFiClientState") {
            const auto state = value.get<std::string>();
            show(state, progress_.announced(state));
        }
    };
    events.presence = [this](bool running) {
        if (!running) {
            failure_ = failure_of_daemon_gone();
        }
    };
    events.unreadable = [this](const std::string& text) { output_.warning(text); };
    return events;
}

/** Calls Connect until it is accepted. Without waiting, so that its answer keeps its place among the
 * announcements. */
std::optional<Failure> JoinAttempt::ask(const std::string& passphrase)
{
    call(passphrase);
    bool told = false;
    Deadline again = kNever;
    while (!accepted_ && signal_ == 0 && Clock::now() < deadline_) {
        if (auto failure = step(std::min(deadline_, again))) {
            return failure;
        }
        if (failure_ && again == kNever) {
            if (!is_to_be_asked_again()) {
                break;
            }
            again = Clock::now() + kAskAgain;
            if (!std::exchange(told, true)) {
                output_.line("  waiting           the station does not take the network yet");
            }
        } else if (failure_ && Clock::now() >= again) {
            again = kNever;
            failure_.reset();
            call(passphrase);
        }
    }
    if (accepted_ || signal_ != 0) {
        return std::nullopt;
    }
    if (!failure_) {
        return failure_of_time();
    }
    if (failure_->daemonText == "Failed to connect to AP") {
        failure_->text = "wpa_supplicant did not take the network, or does not run";
    }
    return with_advice(*failure_);
}

void JoinAttempt::call(const std::string& passphrase)
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
}

/** A daemon that is gone, or a mode that is not a station's, does not get better by waiting. */
bool JoinAttempt::is_to_be_asked_again() const
{
    constexpr auto kPassing = std::to_array<std::string_view>(
        {"Failed to connect to AP", "Failed to add network", "WiFi is in unknown mode"});
    return Clock::now() + kAskAgain < patience_ &&
           std::ranges::find(kPassing, failure_->daemonText) != kPassing.end();
}

std::optional<Failure> JoinAttempt::step(Deadline until)
{
    std::array<pollfd, 1> others{{{interrupts_->fd(), POLLIN, 0}}};
    auto failure = daemon_.step(until, others);
    signal_ = interrupts_->take();
    return failure;
}

/** Asks for what is not announced, one question at a time. */
void JoinAttempt::poll()
{
    if (Clock::now() < nextPoll_) {
        return;
    }
    const bool joined = progress_.phase() == Phase::Joined;
    daemon_.get_later(
        joined ? "IPAddress" : "WiFiClientState",
        [this, joined](Result<Json> answer) {
            nextPoll_ = Clock::now() + kPollInterval;
            if (!answer) {
                failure_ = failure_ ? failure_ : std::optional(answer.failure());
                return;
            }
            const auto text = answer.value().get<std::string>();
            if (!joined) {
                show(text, progress_.polled(text));
            } else if (progress_.phase() == Phase::Joined) {
                address_ = text;
            }
        },
        deadline_);
    nextPoll_ = deadline_;
}

void JoinAttempt::show(const std::string& state, bool news)
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
}

std::optional<Failure> JoinAttempt::outcome() const
{
    if (failure_ || !address_.empty()) {
        return failure_;
    }
    return Failure{ExitStatus::TimedOut, waiting_reason(progress_.last_state(), ssid_) + "; " + way_to_end(),
                   "", ""};
}

} // namespace client
