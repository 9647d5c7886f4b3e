#include <csignal>
#include <memory>
#include <string>

#include "commands.hpp"
#include "interrupts.hpp"
#include "join_attempt.hpp"
#include "network_choice.hpp"
#include "passphrase.hpp"
#include "text.hpp"

namespace client {

namespace {

/** Joins what was chosen. The signal that ended the waiting, or 0. */
Result<int> join(Daemon& daemon, const Arguments& arguments, const std::string& passphrase, Output& output)
{
    const Deadline deadline = Clock::now() + arguments.timeout;
    auto before = daemon.get("WiFiClientState", deadline);
    if (!before) {
        return before.failure();
    }
    if (output.json()) {
        output.object("connecting", {{"ssid", arguments.value}});
    }
    output.line("Connecting to \"" + escaped(arguments.value) + "\"");
    const Interrupts interrupts;
    JoinAttempt attempt(daemon, output, arguments.value, before.value().get<std::string>(), deadline);
    if (auto failure = attempt.run(passphrase, interrupts)) {
        return *failure;
    }
    if (const int number = attempt.interrupted_by(); number != 0) {
        output.warning(attempt.way_to_end());
        return number;
    }
    if (output.json()) {
        output.object("connected", {{"ssid", arguments.value}, {"address", attempt.address()}});
    }
    output.line(output.terminal().styled(Style::Good, "Connected to \"" + escaped(arguments.value) +
                                                          "\", address " + escaped(attempt.address())));
    return 0;
}

} // namespace

std::optional<Failure> run_connect(Daemon& daemon, const Arguments& arguments, Output& output)
{
    const auto chosen = choose_network(daemon, arguments, output);
    if (!chosen) {
        return chosen.failure();
    }
    const auto passphrase = read_passphrase(chosen.value());
    if (!passphrase) {
        return passphrase.failure();
    }
    const auto signal = join(daemon, chosen.value(), passphrase.value(), output);
    if (!signal) {
        return signal.failure();
    }
    if (signal.value() != 0) {
        ::raise(signal.value()); // as if it had not been held back
    }
    return std::nullopt;
}

} // namespace client
