#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace client {

/**
 * How far an attempt to join has come, from the station's state words.
 *
 * The daemon announces only the words that end something; those in between are seen by asking. A word that
 * was asked for may still be the one from before the attempt, so until another is seen it says nothing.
 */
class ConnectProgress
{
public:
    enum class Phase : std::uint8_t { Joining, Joined, Refused, Stopped };

    /** `before` is the state word from before the attempt. */
    explicit ConnectProgress(std::string before) : last_(std::move(before)) {}

    /** The word was announced. Returns whether it is news for people. */
    bool announced(const std::string& state);

    /** The word was the answer to a question. Returns whether it is news for people. */
    bool polled(const std::string& state);

    Phase phase() const { return phase_; }

    /** The last word that belongs to this attempt; empty as long as there is none. */
    std::string last_state() const { return begun_ ? last_ : ""; }

private:
    bool take(const std::string& state);

    std::string last_;
    bool begun_ = false;
    Phase phase_ = Phase::Joining;
};

} // namespace client
