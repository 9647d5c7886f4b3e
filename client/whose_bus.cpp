#include "whose_bus.hpp"

#include <cstdlib>
#include <string_view>

#include <sys/stat.h>
#include <unistd.h>

namespace client {

namespace {

/** Exists while root has a user session, and everybody may see that. */
constexpr const char* kRootsFolder = "/run/user/0";

/** Whether the daemon was not to be found; one that was there and went away is another matter. */
bool is_absence(const Failure& failure)
{
    const std::string_view name = failure.errorName;
    return failure.status == ExitStatus::Unreachable &&
           (name.empty() || name.ends_with(".ServiceUnknown") || name.ends_with(".NameHasNoOwner"));
}

} // namespace

bool is_own_bus(const char* address, const char* folder, uid_t user)
{
    const std::string own = "/run/user/" + std::to_string(user);
    if (address != nullptr && *address != '\0') {
        const std::string_view text = address;
        return text == "unix:path=" + own + "/bus" || text.starts_with("unix:path=" + own + "/bus,");
    }
    return folder == nullptr || folder == own;
}

Failure with_whose_bus(Failure failure)
{
    struct stat status = {};
    if (is_absence(failure) && ::geteuid() != 0 && ::stat(kRootsFolder, &status) == 0 &&
        is_own_bus(std::getenv("DBUS_SESSION_BUS_ADDRESS"), std::getenv("XDG_RUNTIME_DIR"), ::getuid())) {
        failure.text =
            "the daemon's object is on root's bus, which only root reaches: use 'sudo vantora-wifi'";
    }
    return failure;
}

} // namespace client
