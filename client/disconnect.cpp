#include "commands.hpp"
#include "words.hpp"

namespace client {

namespace {

/** The daemon has one answer for a station without a network and for one that is still on its way into one;
 * and between two tries the latter is as disconnected as the former. */
std::string refusal(Daemon& daemon, Deadline deadline)
{
    auto state = daemon.get("WiFiClientState", deadline);
    if (state && is_joining(state.value().get<std::string>())) {
        return "the device is still trying to join a network, which cannot be left before that is done; "
               "'vantora-wifi off' or 'vantora-wifi mode host' ends the attempt";
    }
    if (state && state.value() == "disconnected") {
        return "there is no network to leave: the device is not connected; if it is still trying to join one, "
               "'vantora-wifi off' or 'vantora-wifi mode host' ends that";
    }
    return "there is no network to leave: the device is not connected";
}

} // namespace

std::optional<Failure> run_disconnect(Daemon& daemon, const Arguments& arguments, Output& output)
{
    const Deadline deadline = Clock::now() + arguments.timeout;
    if (auto failure = daemon.call("Disconnect", {}, deadline)) {
        if (failure->daemonText == "Failed to connect to AP") {
            failure->text = refusal(daemon, deadline);
        }
        return with_advice(*failure);
    }
    if (output.json()) {
        output.object("done", {{"command", "disconnect"}, {"applied", true}});
    }
    output.line("Disconnected.");
    return std::nullopt;
}

} // namespace client
