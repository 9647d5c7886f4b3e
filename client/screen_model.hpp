#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "connect_progress.hpp"
#include "failure.hpp"
#include "values.hpp"

namespace client {

/** A key that somebody has pressed. */
struct ScreenKey
{
    enum class Kind : std::uint8_t {
        Text, /**< one character, in `text` */
        Up,
        Down,
        PageUp,
        PageDown,
        Home,
        End,
        Enter,
        Escape,
        Backspace,
        Other
    };
    Kind kind = Kind::Other;
    std::string text{}; /**< UTF-8 */
};

/** What a key asks the program to do. */
struct ScreenAction
{
    enum class Kind : std::uint8_t { None, Leave, Scan, Connect, Disconnect, Mode, Radio };
    Kind kind = Kind::None;
    std::string ssid{};       /**< Connect */
    std::string passphrase{}; /**< Connect; empty for an open network */
    Json value{};             /**< Mode and Radio: what is to be written */
};

/** What the device says of itself, see Follower. */
struct ScreenState
{
    Json fields = Json::object();
    Json networks = Json::array();
    bool running = true;
    bool silent = false;
    bool complete = false;
};

/**
 * The screen without a terminal: what is chosen, what is being typed, what the keys mean and what is told.
 * Nothing here waits, draws or talks to the bus.
 */
class ScreenModel
{
public:
    enum class Page : std::uint8_t { Networks, Passphrase, Help };

    /** Takes in what the device says now. The network chosen stays chosen wherever it is in the new list. */
    void update(ScreenState state);

    /** Takes in a key and says what is to be done. */
    ScreenAction press(const ScreenKey& key);

    /** An action has been answered: with success, or with a failure. */
    void answered(const ScreenAction& action, const std::optional<Failure>& failure);

    /** Shows words on the line for them until something newer is to be told. */
    void tell(const std::string& text, bool bad);

    Page page() const { return page_; }
    const ScreenState& state() const { return state_; }

    /** The number of the network chosen; 0 when there is none. */
    std::size_t chosen() const { return chosen_; }

    /** Whose passphrase is typed. */
    const std::string& ssid() const { return ssid_; }

    /** Characters that have been typed of the passphrase, which is shown to nobody. */
    std::size_t typed() const;

    /** Whether an attempt to join is followed: then the station's state is to be asked for, as the daemon
     * does not announce what it passes through. */
    bool is_joining() const { return progress_.has_value(); }

    /** What is to be told, and whether it is bad news. */
    std::string message() const;
    bool is_bad() const;

private:
    ScreenAction press_in_list(const ScreenKey& key);
    ScreenAction press_letter(char letter);
    ScreenAction press_in_passphrase(const ScreenKey& key);
    ScreenAction choose();
    ScreenAction begin(ScreenAction action, const std::string& words);
    void move(std::ptrdiff_t by);
    void follow_attempt();

    ScreenState state_;
    Page page_ = Page::Networks;
    std::size_t chosen_ = 0;
    std::string chosenSsid_;
    std::string ssid_;
    std::string passphrase_;
    std::string message_;
    bool bad_ = false;
    bool busy_ = false;
    std::string joining_;
    std::optional<ConnectProgress> progress_;
};

} // namespace client
