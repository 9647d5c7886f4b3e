// What the real wpa_supplicant is told otherwise than Debian would have it. Loaded with LD_PRELOAD.
//
// It owns its older bus name beside the newer one, as the device's own build does: Debian's build has the
// code for the newer name only, and the objects behind both are the same. And where the sandbox is an
// ordinary user's, in which everybody is root, it presents itself to the bus outside as that user, whom the
// bus sees.

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace {

constexpr std::string_view kNewerName = "fi.w1.wpa_supplicant1";
constexpr const char* kOlderName = "fi.epitest.hostap.WPASupplicant";
constexpr const char* kUserVariable = "VANTORA_BUS_USER";

using RequestName = int (*)(void* connection, const char* name, unsigned int flags, void* error);

} // namespace

/// Stands before libdbus's function of this name. The result is that of the name that was asked for.
extern "C" int dbus_bus_request_name(void* connection, const char* name, unsigned int flags, void* error)
{
    const auto request = reinterpret_cast<RequestName>(dlsym(RTLD_NEXT, "dbus_bus_request_name"));
    if (name == kNewerName) {
        // First, so that whoever waits for the newer name finds both.
        request(connection, kOlderName, flags, nullptr);
    }
    return request(connection, name, flags, error);
}

/// Stands before the C library's function of this name, by which libdbus finds out as whom to present itself.
extern "C" uid_t geteuid()
{
    const char* user = std::getenv(kUserVariable);
    return user != nullptr ? static_cast<uid_t>(std::strtoul(user, nullptr, 10)) : getuid();
}
