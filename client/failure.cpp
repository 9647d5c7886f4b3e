#include "failure.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>

namespace client {

namespace {

constexpr std::string_view kPrefix = "org.freedesktop.DBus.Error.";

bool is_one_of(std::string_view name, const auto& candidates)
{
    return std::ranges::find(candidates, name) != candidates.end();
}

} // namespace

Failure failure_of_call(const char* errorName, const char* message, int result)
{
    constexpr auto kAbsent = std::to_array<std::string_view>({"ServiceUnknown", "NameHasNoOwner"});
    constexpr auto kGone = std::to_array<std::string_view>({"NoReply", "Disconnected"});

    const std::string name = errorName == nullptr ? "" : errorName;
    std::string_view shortName = name;
    if (shortName.starts_with(kPrefix)) {
        shortName.remove_prefix(kPrefix.size());
    }
    if (is_one_of(shortName, kAbsent)) {
        return {ExitStatus::Unreachable, "the daemon is not running (nobody owns com.vantora.Network1)", name,
                ""};
    }
    if (is_one_of(shortName, kGone)) {
        Failure gone = failure_of_daemon_gone();
        gone.errorName = name;
        return gone;
    }
    // Only now: to the bus library an answer that nobody will send any more is a time-out, too.
    if (shortName == "Timeout" || result == -ETIMEDOUT) {
        return failure_of_time();
    }
    if (name.empty() || result == -ECONNRESET || result == -ENOTCONN) {
        return failure_of_bus(result);
    }
    const std::string text = message == nullptr ? "" : message;
    return {ExitStatus::Refused, "the daemon refused", name, text.empty() ? name : text};
}

Failure failure_of_bus(int result)
{
    return {ExitStatus::Unreachable,
            "the user bus cannot be reached: " + std::generic_category().message(-result), "", ""};
}

Failure failure_of_time()
{
    return {ExitStatus::TimedOut, "the daemon did not answer in time", "", ""};
}

Failure failure_of_daemon_gone()
{
    return {ExitStatus::Unreachable, "the daemon has left the bus in the middle of this", "", ""};
}

} // namespace client
