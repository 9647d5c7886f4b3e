#include "follower.hpp"

#include <algorithm>
#include <utility>

#include "networks.hpp"
#include "properties.hpp"

namespace client {

namespace {

/** A question that needs a neighbour takes longer than this only when something hangs. */
constexpr std::chrono::milliseconds kUsual{2'000};

} // namespace

Follower::Follower(Daemon& daemon, std::chrono::milliseconds timeout, std::function<void()> changed,
                   std::function<void(const std::string&)> warned)
    : daemon_(daemon), timeout_(timeout), changed_(std::move(changed)), warned_(std::move(warned))
{
}

std::optional<Failure> Follower::begin()
{
    Daemon::Events events;
    events.changed = [this](const std::string& property, const Json& value) {
        notice_change(property, value);
    };
    events.networks = [this](const Json& networks) {
        networks_ = networks;
        changed_();
    };
    events.presence = [this](bool running) { notice_presence(running); };
    events.unreadable = warned_;
    if (auto failure = daemon_.follow(std::move(events), Clock::now() + timeout_)) {
        return failure;
    }
    refresh();
    return std::nullopt;
}

Json Follower::fields() const
{
    return status_fields(properties_);
}

Json Follower::networks() const
{
    Json networks = networks_;
    mark_joined(networks, properties_.value("ClientSSID", std::string()));
    return networks;
}

bool Follower::is_silent(Deadline now) const
{
    return asked_ && now >= *asked_ + kUsual;
}

Deadline Follower::next() const
{
    return asked_ && !is_silent(Clock::now()) ? *asked_ + kUsual : kNever;
}

void Follower::refresh()
{
    for (const PropertyName& property : known_properties()) {
        ask(property.daemon);
    }
    ask("AccessPoints");
}

/** Puts off a question until those before it are answered; one that waits already is not asked twice. */
void Follower::ask(const std::string& property)
{
    if (std::ranges::find(questions_, property) == questions_.end()) {
        questions_.push_back(property);
        complete_ = false;
    }
    ask_next();
}

void Follower::ask_next()
{
    if (asked_ || !running_) {
        return;
    }
    if (questions_.empty()) {
        complete_ = true;
        return;
    }
    const std::string property = std::move(questions_.front());
    questions_.pop_front();
    asked_ = Clock::now();
    daemon_.get_later(
        property,
        [this, property, round = round_](const Result<Json>& answer) {
            // What an earlier daemon was asked is answered when it dies, and says nothing of this one.
            if (round == round_) {
                take_answer(property, answer);
            }
        },
        Clock::now() + timeout_);
}

void Follower::take_answer(const std::string& property, const Result<Json>& answer)
{
    asked_.reset();
    failure_.reset();
    if (answer) {
        take(property, answer.value());
    } else if (answer.failure().status == ExitStatus::Refused) {
        properties_.erase(property); // as a device does whose bands the daemon does not know
    } else if (answer.failure().status == ExitStatus::TimedOut) {
        questions_.push_back(property);
    } else {
        running_ = false;
        failure_ = answer.failure();
    }
    ask_next();
    changed_();
}

void Follower::take(const std::string& property, const Json& value)
{
    if (property == "AccessPoints") {
        networks_ = value;
    } else {
        properties_[property] = value;
    }
}

void Follower::notice_change(const std::string& property, const Json& value)
{
    take(property, value);
    if (property == "Mode" || property == "WiFiState") {
        refresh(); // what the others say depends on these
    } else if (property == "WiFiClientState" || property == "SSID") {
        ask("ClientSSID"); // never announced itself
    }
    changed_();
}

void Follower::notice_presence(bool running)
{
    ++round_;
    asked_.reset();
    questions_.clear();
    complete_ = false;
    running_ = running;
    properties_ = Json::object();
    networks_ = Json::array();
    if (running) {
        refresh();
    }
    changed_();
}

} // namespace client
