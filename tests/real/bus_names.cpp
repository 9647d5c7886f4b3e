// Makes wpa_supplicant own its older bus name beside the newer one, as the device's own build does. Debian's build has
// the code for the newer name only; the objects behind both are the same. Loaded with LD_PRELOAD.

#include <dlfcn.h>

#include <string_view>

namespace {

constexpr std::string_view kNewerName = "fi.w1.wpa_supplicant1";
constexpr const char* kOlderName = "fi.epitest.hostap.WPASupplicant";

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
