#include "screen_model.hpp"

#include <algorithm>
#include <utility>

#include "passphrase.hpp"
#include "words.hpp"

namespace client {

namespace {

using Kind = ScreenKey::Kind;
using Action = ScreenAction::Kind;
using Phase = ConnectProgress::Phase;

constexpr std::ptrdiff_t kPage = 10;

std::string text_of(const Json& fields, const char* field)
{
    const auto found = fields.find(field);
    return found != fields.end() && found->is_string() ? found->get<std::string>() : "";
}

std::string in_quotes(const std::string& ssid)
{
    return "\"" + ssid + "\"";
}

/** Takes the last character of a UTF-8 text away. */
void remove_last(std::string& text)
{
    while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xc0) == 0x80) {
        text.pop_back();
    }
    if (!text.empty()) {
        text.pop_back();
    }
}

} // namespace

void ScreenModel::update(ScreenState state)
{
    state_ = std::move(state);
    const Json& networks = state_.networks;
    const auto found = std::ranges::find_if(
        networks, [this](const Json& network) { return network["ssid"] == chosenSsid_; });
    if (found != networks.end()) {
        chosen_ = static_cast<std::size_t>(found - networks.begin());
    } else {
        chosen_ = networks.empty() ? 0 : std::min(chosen_, networks.size() - 1);
        chosenSsid_ = networks.empty() ? "" : networks[chosen_]["ssid"].get<std::string>();
    }
    follow_attempt();
}

/** Tells what has become of the attempt to join that was begun here. */
void ScreenModel::follow_attempt()
{
    if (!progress_ || !progress_->polled(text_of(state_.fields, "client_state"))) {
        return;
    }
    const Phase phase = progress_->phase();
    if (phase == Phase::Joining) {
        tell("Joining " + in_quotes(joining_) + ": " + state_meaning(progress_->last_state()), false);
        return;
    }
    progress_.reset();
    if (phase == Phase::Joined) {
        tell("Connected to " + in_quotes(joining_) + ".", false);
    } else if (phase == Phase::Refused) {
        tell(in_quotes(joining_) + " refused the passphrase.", true);
    } else {
        tell("The device is not a station any more.", true);
    }
}

ScreenAction ScreenModel::press(const ScreenKey& key)
{
    switch (page_) {
    case Page::Passphrase:
        return press_in_passphrase(key);
    case Page::Help:
        page_ = Page::Networks; // any key leads back
        return {};
    case Page::Networks:
        break;
    }
    return press_in_list(key);
}

ScreenAction ScreenModel::press_in_list(const ScreenKey& key)
{
    switch (key.kind) {
    case Kind::Up:
        move(-1);
        return {};
    case Kind::Down:
        move(1);
        return {};
    case Kind::PageUp:
        move(-kPage);
        return {};
    case Kind::PageDown:
        move(kPage);
        return {};
    case Kind::Home:
        move(-static_cast<std::ptrdiff_t>(state_.networks.size()));
        return {};
    case Kind::End:
        move(static_cast<std::ptrdiff_t>(state_.networks.size()));
        return {};
    case Kind::Enter:
        return choose();
    case Kind::Text:
        return key.text.size() == 1 ? press_letter(key.text.front()) : ScreenAction{};
    default:
        return {};
    }
}

ScreenAction ScreenModel::press_letter(char letter)
{
    const bool on = text_of(state_.fields, "radio") == "on";
    switch (letter) {
    case 'q':
        return {Action::Leave};
    case '?':
        page_ = Page::Help;
        return {};
    case 'k':
        move(-1);
        return {};
    case 'j':
        move(1);
        return {};
    case 'r':
        return begin({Action::Scan}, "Looking for networks...");
    case 'd':
        return begin({Action::Disconnect}, "Leaving the network...");
    case 'm': {
        const bool host = text_of(state_.fields, "mode") == "Host";
        return begin({.kind = Action::Mode, .value = host ? "Client" : "Host"},
                     host ? "Becoming a station..." : "Becoming an access point...");
    }
    case 'o':
        return begin({.kind = Action::Radio, .value = on ? 0U : 1U},
                     on ? "Switching the radio off..." : "Switching the radio on...");
    default:
        return {};
    }
}

ScreenAction ScreenModel::press_in_passphrase(const ScreenKey& key)
{
    switch (key.kind) {
    case Kind::Text:
        passphrase_ += key.text;
        return {};
    case Kind::Backspace:
        remove_last(passphrase_);
        return {};
    case Kind::Escape:
        passphrase_.clear();
        page_ = Page::Networks;
        tell("", false);
        return {};
    case Kind::Enter:
        break;
    default:
        return {};
    }
    if (const std::string fault = passphrase_fault(passphrase_); !fault.empty()) {
        passphrase_.clear();
        tell(fault, true);
        return {};
    }
    page_ = Page::Networks;
    return begin({.kind = Action::Connect, .ssid = ssid_, .passphrase = std::exchange(passphrase_, "")},
                 "Joining " + in_quotes(ssid_) + "...");
}

/** What Enter means for the network chosen. */
ScreenAction ScreenModel::choose()
{
    if (state_.networks.empty() || busy_) {
        return {};
    }
    const Json& network = state_.networks[chosen_];
    ssid_ = network["ssid"].get<std::string>();
    if (network["joinable"] == false) {
        tell(in_quotes(ssid_) + " is encrypted in a way that this device cannot join.", true);
        return {};
    }
    if (network["encrypted"] == false) {
        return begin({.kind = Action::Connect, .ssid = ssid_}, "Joining " + in_quotes(ssid_) + "...");
    }
    page_ = Page::Passphrase;
    tell("", false);
    return {};
}

/** One request at a time: the daemon itself handles no more. */
ScreenAction ScreenModel::begin(ScreenAction action, const std::string& words)
{
    if (busy_ || !state_.running) {
        return {};
    }
    busy_ = true;
    if (action.kind == Action::Connect) {
        joining_ = action.ssid;
    }
    tell(words, false);
    return action;
}

void ScreenModel::answered(const ScreenAction& action, const std::optional<Failure>& failure)
{
    busy_ = false;
    if (failure) {
        Failure told = with_advice(*failure);
        if (told.daemonText == "Failed to connect to AP") {
            told.text = action.kind == Action::Disconnect
                            ? disconnect_meaning(text_of(state_.fields, "client_state"))
                            : "wpa_supplicant did not take the network, or does not run";
        }
        tell(told.text, true);
        return;
    }
    switch (action.kind) {
    case Action::Connect:
        progress_.emplace(text_of(state_.fields, "client_state"));
        break;
    case Action::Scan:
        tell("Asked for a scan; what it finds appears above.", false);
        break;
    case Action::Disconnect:
        progress_.reset();
        tell("Disconnected.", false);
        break;
    case Action::Mode:
    case Action::Radio:
        progress_.reset();
        tell("", false); // the state above says what has become of it
        break;
    default:
        break;
    }
}

void ScreenModel::tell(const std::string& text, bool bad)
{
    message_ = text;
    bad_ = bad;
}

std::size_t ScreenModel::typed() const
{
    return static_cast<std::size_t>(std::ranges::count_if(
        passphrase_, [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0) != 0x80; }));
}

std::string ScreenModel::message() const
{
    if (!state_.running) {
        return "The daemon is not running; waiting for it.";
    }
    // A request keeps the daemon busy, which is no news.
    return state_.silent && !busy_ ? "The daemon does not answer; waiting for it." : message_;
}

bool ScreenModel::is_bad() const
{
    return bad_ || !state_.running || (state_.silent && !busy_);
}

void ScreenModel::move(std::ptrdiff_t by)
{
    if (state_.networks.empty()) {
        return;
    }
    const auto last = static_cast<std::ptrdiff_t>(state_.networks.size()) - 1;
    chosen_ = static_cast<std::size_t>(
        std::clamp(static_cast<std::ptrdiff_t>(chosen_) + by, std::ptrdiff_t{0}, last));
    chosenSsid_ = state_.networks[chosen_]["ssid"].get<std::string>();
}

} // namespace client
