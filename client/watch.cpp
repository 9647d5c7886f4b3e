#include "watch.hpp"

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "follower.hpp"
#include "networks.hpp"
#include "status.hpp"

namespace client {

namespace {

constexpr std::chrono::seconds kScanEvery{10};

class Watch
{
public:
    /** What is watched: its value, the type and field of its object for programs, and its lines for people.
     */
    struct Subject
    {
        std::function<Json(const Follower&)> value;
        std::function<void(Output&, const Json&)> print;
        std::function<std::vector<std::string>(const Json&, const Terminal&)> lines;
        bool scans = false;
    };

    Watch(Daemon& daemon, const Arguments& arguments, Output& output, Subject subject)
        : daemon_(daemon), timeout_(arguments.timeout), output_(output), subject_(std::move(subject)),
          follower_(
              daemon, arguments.timeout, [] {}, [&output](const std::string& text) { output.warning(text); }),
          nextScan_(subject_.scans ? Clock::now() : kNever)
    {
    }

    std::optional<Failure> run()
    {
        const Deadline deadline = Clock::now() + timeout_;
        if (auto failure = follower_.begin()) {
            return failure;
        }
        while (output_.complete()) {
            scan();
            if (auto failure =
                    daemon_.step(std::min({follower_.next(), nextScan_, shown_ ? kNever : deadline}))) {
                return failure;
            }
            if (!shown_ && !follower_.is_running()) {
                return follower_.failure();
            }
            if (!shown_ && Clock::now() >= deadline) {
                return failure_of_time();
            }
            show();
        }
        return std::nullopt;
    }

private:
    void scan()
    {
        if (Clock::now() < nextScan_) {
            return;
        }
        daemon_.call_later(
            "Scan", {}, [](const std::optional<Failure>&) {}, Clock::now() + timeout_);
        nextScan_ = Clock::now() + kScanEvery;
    }

    /** What stands below, when something is not as it should be. */
    std::string note() const
    {
        if (!follower_.is_running()) {
            return "The daemon has left the bus; waiting for it to come back.";
        }
        if (follower_.is_silent(Clock::now())) {
            return "The daemon does not answer; waiting for it.";
        }
        return subject_.scans && follower_.fields()["mode"] != "Client"
                   ? "The device is not a station, and does not look for networks."
                   : "";
    }

    void show()
    {
        const std::string note = this->note();
        const bool fits = follower_.is_complete() && follower_.is_running();
        Json value = fits ? subject_.value(follower_) : value_;
        if ((!fits && !shown_) || (shown_ && value == value_ && note == note_)) {
            return;
        }
        const bool present = follower_.is_running();
        if (output_.json() && std::exchange(present_, present) != present) {
            output_.object("daemon", {{"running", present}});
        }
        if (output_.json() && fits && (!shown_ || value != value_)) {
            subject_.print(output_, value);
        }
        auto lines = subject_.lines(value, output_.terminal());
        if (!note.empty()) {
            lines.push_back(output_.terminal().styled(Style::Bad, note));
        }
        output_.replace(lines);
        shown_ = true;
        value_ = std::move(value);
        note_ = note;
    }

    Daemon& daemon_;
    std::chrono::milliseconds timeout_;
    Output& output_;
    Subject subject_;
    Follower follower_;
    Deadline nextScan_;
    bool shown_ = false;
    bool present_ = true;
    Json value_;
    std::string note_;
};

} // namespace

std::optional<Failure> watch_status(Daemon& daemon, const Arguments& arguments, Output& output)
{
    return Watch(daemon, arguments, output,
                 {[](const Follower& follower) { return follower.fields(); },
                  [](Output& out, const Json& fields) { out.object("status", fields); },
                  [](const Json& fields, const Terminal& terminal) {
                      return status_table(fields, terminal).lines();
                  }})
        .run();
}

std::optional<Failure> watch_networks(Daemon& daemon, const Arguments& arguments, Output& output)
{
    return Watch(daemon, arguments, output,
                 {[](const Follower& follower) { return follower.networks(); },
                  [](Output& out, const Json& networks) {
                      out.object("networks", {{"networks", networks}});
                  },
                  [](const Json& networks, const Terminal& terminal) {
                      return networks.empty() ? std::vector<std::string>{"No networks in range."}
                                              : networks_table(networks, terminal).lines();
                  },
                  true})
        .run();
}

} // namespace client
