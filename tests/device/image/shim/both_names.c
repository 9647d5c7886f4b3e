/*
 * Preloaded into wpa_supplicant, so that it owns the bus name of earlier releases besides its present one, on the same
 * connection, as builds with the old D-Bus interface do.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <string.h>

typedef int (*request_name_function)(void* connection, const char* name, unsigned flags, void* error);

int dbus_bus_request_name(void* connection, const char* name, unsigned flags, void* error);

int dbus_bus_request_name(void* connection, const char* name, unsigned flags, void* error)
{
    request_name_function request_name;
    *(void**)&request_name = dlsym(RTLD_NEXT, "dbus_bus_request_name");
    const int result = request_name(connection, name, flags, error);
    if (name != NULL && strcmp(name, "fi.w1.wpa_supplicant1") == 0) {
        request_name(connection, "fi.epitest.hostap.WPASupplicant", flags, NULL);
    }
    return result;
}
