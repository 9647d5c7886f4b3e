#include <string>

#include "commands.hpp"
#include "words.hpp"

namespace client {

std::optional<Failure> run_disconnect(Daemon& daemon, const Arguments& arguments, Output& output)
{
    const Deadline deadline = Clock::now() + arguments.timeout;
    if (auto failure = daemon.call("Disconnect", deadline)) {
        if (failure->daemonText == "Failed to connect to AP") {
            auto state = daemon.get("WiFiClientState", deadline);
            failure->text = disconnect_meaning(state ? state.value().get<std::string>() : "");
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
