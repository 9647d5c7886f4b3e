#include "network_choice.hpp"

#include <charconv>
#include <cstdio>
#include <iostream>
#include <string>

#include "networks.hpp"
#include "scan.hpp"
#include "text.hpp"

namespace client {

namespace {

Failure refused(const std::string& text)
{
    return {ExitStatus::Refused, text, "", ""};
}

/** The network that the arguments name, among what is known or else among what a new scan finds. */
Result<Json> find_in_range(Daemon& daemon, const Arguments& arguments, Output& output, Deadline deadline)
{
    auto networks = known_networks(daemon, deadline);
    if (networks && find_network(networks.value(), arguments.value) == nullptr) {
        networks = look_around(daemon, output, deadline);
    }
    if (!networks) {
        return networks;
    }
    if (const Json* const found = find_network(networks.value(), arguments.value); found != nullptr) {
        return *found;
    }
    return refused(
        "\"" + arguments.value +
        "\" is not in range; with --hidden (it does not tell its name) or --force the device tries all "
        "the same");
}

/** Why the network cannot be joined in this way; empty when it can. */
std::string fault_of(const Json& network, const Arguments& arguments)
{
    const std::string name = "\"" + arguments.value + "\"";
    if (network["joinable"] == false) {
        return name + " is encrypted in a way that this device cannot join";
    }
    const bool open = network["encrypted"] == false;
    if (open && (arguments.passphrase == PassphraseSource::File ||
                 arguments.passphrase == PassphraseSource::StandardInput)) {
        return name +
               " is open where the device is: it takes no passphrase, and may be another network than you "
               "think; --open joins it, --force tries with the passphrase";
    }
    if (!open && arguments.passphrase == PassphraseSource::None) {
        return name + " wants a passphrase; --force tries without one";
    }
    return "";
}

/** Shows what can be joined, numbered, and reads a number. */
Result<Json> pick(const Json& networks, const Output& output)
{
    Json joinable = Json::array();
    for (const Json& network : networks) {
        if (network["joinable"] == true) {
            joinable.push_back(network);
        }
    }
    if (joinable.empty()) {
        return refused("there is no network in range that can be joined");
    }
    const auto lines = networks_table(joinable, output.terminal()).lines();
    for (std::size_t index = 0; index < lines.size(); ++index) {
        const std::string number = index == 0 ? "" : std::to_string(index);
        std::printf("%s%s  %s\n", std::string(3 - std::min<std::size_t>(number.size(), 3), ' ').c_str(),
                    number.c_str(), lines[index].c_str());
    }
    for (;;) {
        std::printf("Network (1 to %zu): ", joinable.size());
        std::fflush(stdout);
        std::string answer;
        if (!std::getline(std::cin, answer) || answer.empty()) {
            return Failure{ExitStatus::Usage, "no network was chosen", "", ""};
        }
        std::size_t number = 0;
        const auto [end, error] = std::from_chars(answer.data(), answer.data() + answer.size(), number);
        if (error == std::errc() && end == answer.data() + answer.size() && number >= 1 &&
            number <= joinable.size()) {
            return joinable[number - 1];
        }
    }
}

} // namespace

Result<Arguments> choose_network(Daemon& daemon, Arguments arguments, Output& output)
{
    const Deadline deadline = Clock::now() + arguments.timeout;
    if (auto failure = check_station(daemon, "join a network", deadline)) {
        return *failure;
    }
    if (arguments.force && !arguments.value.empty()) {
        return arguments;
    }
    Result<Json> network = Json();
    if (arguments.value.empty()) {
        auto networks = look_around(daemon, output, deadline);
        network = networks ? pick(networks.value(), output) : networks;
        if (network) {
            arguments.value = network.value()["ssid"].get<std::string>();
        }
    } else {
        network = find_in_range(daemon, arguments, output, deadline);
    }
    if (!network) {
        return network.failure();
    }
    if (const std::string fault = fault_of(network.value(), arguments); !fault.empty()) {
        return refused(fault);
    }
    if (network.value()["encrypted"] == false) {
        arguments.passphrase = PassphraseSource::None;
    }
    return arguments;
}

} // namespace client
