#include "commands.hpp"
#include "words.hpp"

namespace client {

std::optional<Failure> run_disconnect(Daemon& daemon, const Arguments& arguments, Output& output)
{
    if (auto failure = daemon.call("Disconnect", {}, Clock::now() + arguments.timeout)) {
        if (failure->daemonText == "Failed to connect to AP") {
            failure->text = "there is no network to leave: the device is not connected";
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
