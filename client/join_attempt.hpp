#pragma once

#include <optional>
#include <string>

#include "connect_progress.hpp"
#include "daemon.hpp"
#include "deadline.hpp"
#include "failure.hpp"
#include "interrupts.hpp"
#include "output.hpp"

namespace client {

/** One attempt to join a network, from the call to the address, shown as it goes on. */
class JoinAttempt
{
public:
    /** `before` is the station's state word from before the attempt. */
    JoinAttempt(Daemon& daemon, Output& output, std::string ssid, std::string before, Deadline deadline);

    /**
     * Asks for it and waits for the address. A station that is just starting does not take a network yet: it
     * is asked again for some seconds.
     *
     * @return the failure, or nothing; also nothing when a signal ended it, see interrupted_by().
     */
    std::optional<Failure> run(const std::string& passphrase, const Interrupts& interrupts);

    /** The address that the device got; empty as long as there is none. */
    const std::string& address() const { return address_; }

    /** The signal that ended the waiting, or 0. */
    int interrupted_by() const { return signal_; }

    /** How the attempt is ended, which goes on without this program, as a clause. */
    std::string way_to_end() const;

private:
    Daemon::Events events();
    std::optional<Failure> ask(const std::string& passphrase);
    void call(const std::string& passphrase);
    bool is_to_be_asked_again() const;
    std::optional<Failure> step(Deadline until);
    void poll();
    void show(const std::string& state, bool news);
    std::optional<Failure> outcome() const;

    Daemon& daemon_;
    Output& output_;
    const Interrupts* interrupts_ = nullptr;
    std::string ssid_;
    ConnectProgress progress_;
    Deadline deadline_;
    Deadline patience_;
    Deadline nextPoll_{}; // the deadline while a question waits for its answer
    bool accepted_ = false;
    int signal_ = 0;
    std::string address_;
    std::optional<Failure> failure_;
};

} // namespace client
