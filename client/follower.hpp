#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "daemon.hpp"
#include "deadline.hpp"
#include "failure.hpp"
#include "values.hpp"

namespace client {

/**
 * What the daemon says of itself, kept up to date without ever waiting for it: it is asked one question at a
 * time, and what it announces is taken in as it comes. Everything happens in Daemon::step().
 */
class Follower
{
public:
    /**
     * @param changed called whenever anything of what is told below has changed.
     * @param warned called with words for people, see Daemon::Events::unreadable.
     */
    Follower(Daemon& daemon, std::chrono::milliseconds timeout, std::function<void()> changed,
             std::function<void(const std::string&)> warned);
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    /** Begins; the failure, or nothing. */
    std::optional<Failure> begin();

    /** The state as the fields of JSON, see status_fields(); null where nothing is known yet. */
    Json fields() const;

    /** The networks in range, in which the one joined is marked. */
    Json networks() const;

    /** Whether no question waits for its answer: what is told fits together. */
    bool is_complete() const { return complete_; }

    /** Whether somebody has the daemon's name. */
    bool is_running() const { return running_; }

    /** Why the daemon could not be asked when that was last tried; nothing when it could. */
    const std::optional<Failure>& failure() const { return failure_; }

    /** Whether a question has waited for its answer for longer than the daemon usually takes. */
    bool is_silent(Deadline now) const;

    /** When is_silent() changes by itself. */
    Deadline next() const;

    /** Asks for everything anew. */
    void refresh();

    /** Asks for one property anew: for what the daemon does not announce. */
    void look_at(const std::string& property) { ask(property); }

private:
    void ask(const std::string& property);
    void ask_next();
    void take(const std::string& property, const Json& value);
    void take_answer(const std::string& property, const Result<Json>& answer);
    void notice_change(const std::string& property, const Json& value);
    void notice_presence(bool running);

    Daemon& daemon_;
    std::chrono::milliseconds timeout_;
    std::function<void()> changed_;
    std::function<void(const std::string&)> warned_;
    Json properties_ = Json::object();
    Json networks_ = Json::array();
    std::deque<std::string> questions_;
    std::optional<Deadline> asked_;
    std::optional<Failure> failure_;
    unsigned int round_ = 0;
    bool complete_ = false;
    bool running_ = true;
};

} // namespace client
