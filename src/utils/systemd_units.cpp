#include "utils/systemd_units.hpp"

#include <algorithm>
#include <chrono>
#include <cstdint>

#include <syslog.h>

#include "support/bus_connection.hpp"

namespace {

constexpr const char* kSystemd = "org.freedesktop.systemd1";
constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
constexpr const char* kManager = "org.freedesktop.systemd1.Manager";
constexpr const char* kUnit = "org.freedesktop.systemd1.Unit";

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/**
 * Enabling and disabling reload systemd's idea of all unit files, so they get a limit of their own: for the
 * opening of the bus and the call together.
 */
constexpr std::chrono::microseconds kUnitFilesTime = 5s;

/**
 * What the opening that began then has left of the limit, for the call. Counted in tenths of a second: a bus
 * that lets in at once leaves all of it.
 */
uint64_t unit_files_timeout_usec(Clock::time_point begin)
{
    using Tenths = std::chrono::duration<int64_t, std::deci>;

    const auto used = std::chrono::floor<Tenths>(Clock::now() - begin);
    const std::chrono::microseconds left = kUnitFilesTime - used;
    return static_cast<uint64_t>(std::max<int64_t>(left.count(), 1)); // 0 stands for the usual time-out
}

/** What differs between enabling and disabling a unit file. */
struct UnitFilesCall
{
    const char* method;
    int flags; // booleans to append, all false: runtime and, when enabling, force
    void (*logCloseFailed)();
    void (*logSucceeded)(const char* unit);
    void (*logSummary)(int result);
};

constexpr UnitFilesCall kEnable = {
    .method = "EnableUnitFiles",
    .flags = 2,
    .logCloseFailed =
        [] { syslog(LOG_ERR, "[Utils] %s: sd_bus_close_container failed", "utils_enable_service"); },
    .logSucceeded =
        [](const char* unit) { syslog(LOG_INFO, "[Utils] %s should've been successfully enabled", unit); },
    .logSummary =
        [](int result) {
            syslog(LOG_ERR, "[Utils] %s Error building/calling EnableUnitFiles: %d", "utils_enable_service",
                   result);
        },
};

constexpr UnitFilesCall kDisable = {
    .method = "DisableUnitFiles",
    .flags = 1,
    .logCloseFailed =
        [] { syslog(LOG_ERR, "[Main] %s: sd_bus_close_container failed", "utils_disable_service"); },
    .logSucceeded =
        [](const char* unit) { syslog(LOG_INFO, "[Utils] %s should've been successfully disabled", unit); },
    .logSummary =
        [](int result) {
            syslog(LOG_ERR, "[Utils] %s Error building/calling DisableUnitFiles: %d", "utils_disable_service",
                   result);
        },
};

/** Appends the one-element array of unit files. A failing step is logged and the next one tried all the same.
 */
void append_unit_file(sd_bus_message* message, const UnitFilesCall& call, const std::string& unit)
{
    int result = sd_bus_message_open_container(message, 'a', "s");
    if (result < 0) {
        syslog(LOG_ERR, "[Utils], failed to open container. ret %d", result);
    }
    result = sd_bus_message_append(message, "s", unit.c_str());
    if (result < 0) {
        syslog(LOG_ERR, "[Utils], failed to append message with %s", unit.c_str());
    }
    result = sd_bus_message_close_container(message);
    if (result < 0) {
        call.logCloseFailed();
    }
}

/** Appends the flags. Returns the result of the last append, the one that counts. */
int append_flags(sd_bus_message* message, int count)
{
    int result = 0;
    for (int i = 0; i < count; ++i) {
        const int flag = 0;
        result = sd_bus_message_append(message, "b", flag);
        if (result < 0) {
            syslog(LOG_ERR, "[Utils], failed to append message with %d", flag);
        }
    }
    return result;
}

int send_unit_files_call(sd_bus* bus, const UnitFilesCall& call, const std::string& unit,
                         Clock::time_point begin)
{
    sd_bus_message* created = nullptr;
    int result = sd_bus_message_new_method_call(bus, &created, kSystemd, kManagerPath, kManager, call.method);
    const MessagePtr message(created);
    if (result < 0) {
        return result;
    }
    append_unit_file(message.get(), call, unit);
    result = append_flags(message.get(), call.flags);
    if (result < 0) {
        return result;
    }

    BusError error;
    sd_bus_message* received = nullptr;
    result = sd_bus_call(bus, message.get(), unit_files_timeout_usec(begin), error.get(), &received);
    const MessagePtr reply(received);
    if (result > 0) {
        call.logSucceeded(unit.c_str());
    } else {
        syslog(LOG_ERR, "[Utils] Failed to send bus enable call");
    }
    return result;
}

bool change_unit_files(const UnitFilesCall& call, const std::string& unit)
{
    const auto begin = Clock::now();
    BusPtr bus;
    int result = open_system_bus(bus, kUnitFilesTime);
    if (result < 0) {
        syslog(LOG_ERR, "[Utils] Failed to open system bus. ret %d", result);
        return false;
    }
    result = send_unit_files_call(bus.get(), call, unit, begin);
    if (result < 0) {
        call.logSummary(result);
    }
    return result >= 0;
}

/** What differs between the look-ups, and what between the unit jobs. */
struct PathCall
{
    const char* method;
    const char* function;
    void (*logFailed)(const char* subject, const char* text, int result);
    void (*logSucceeded)(const char* first, const char* second);
};

constexpr PathCall kGetUnit = {
    .method = "GetUnit",
    .function = "utils_get_service_unit",
    .logFailed =
        [](const char* subject, const char* text, int result) {
            syslog(LOG_ERR, "[Utils] Failed to get unit name of '%s' service. %s (r = %d)", subject, text,
                   result);
        },
    .logSucceeded =
        [](const char* first, const char* second) {
            syslog(LOG_INFO, "[Utils] Got unit name '%s' for the service '%s'", first, second);
        },
};

constexpr PathCall kLoadUnit = {
    .method = "LoadUnit",
    .function = "utils_load_service_unit",
    .logFailed =
        [](const char* subject, const char* text, int result) {
            syslog(LOG_ERR, "[Utils] Failed to load unit name of '%s' service. %s (r = %d)", subject, text,
                   result);
        },
    .logSucceeded =
        [](const char* first, const char* second) {
            syslog(LOG_INFO, "[Utils] Got unit name '%s' for the service '%s'", first, second);
        },
};

constexpr PathCall kStart = {
    .method = "Start",
    .function = "utils_start_service",
    .logFailed =
        [](const char* subject, const char* text, int result) {
            syslog(LOG_ERR, "[Utils] Failed to start '%s' unit. %s (r = %d)", subject, text, result);
        },
    .logSucceeded =
        [](const char* first, const char* second) {
            syslog(LOG_INFO, "[Utils] Started '%s' unit with job id:%s", first, second);
        },
};

constexpr PathCall kRestart = {
    .method = "Restart",
    .function = "utils_restart_service",
    .logFailed =
        [](const char* subject, const char* text, int result) {
            syslog(LOG_ERR, "[Utils]  Failed to re-start '%s' unit. %s (r = %d)", subject, text, result);
        },
    .logSucceeded =
        [](const char* first, const char* second) {
            syslog(LOG_INFO, "[Utils] Restarted '%s' unit with job id:%s", first, second);
        },
};

constexpr PathCall kStop = {
    .method = "Stop",
    .function = "utils_stop_service",
    .logFailed =
        [](const char* subject, const char* text, int result) {
            syslog(LOG_ERR, "[Utils] Failed to stop '%s' unit. %s (r = %d)", subject, text, result);
        },
    .logSucceeded =
        [](const char* first, const char* second) {
            syslog(LOG_INFO, "[Utils] Stopped '%s' unit with job id:%s", first, second);
        },
};

/**
 * Makes one call with one text argument whose reply is one object path, into `path`.
 * Returns the last result code: of the opening of the bus, of the call, or of the reading.
 */
int call_for_path(const PathCall& call, const char* object, const char* interface, const char* argument,
                  const char* subject, std::string& path)
{
    BusPtr bus;
    // A job of no unit, after a failed look-up, is refused by the library: no reason to wait for a bus that
    // hangs.
    int result = open_system_bus(bus, *object != '\0' ? LetIn::Awaited : LetIn::Unneeded);
    if (result < 0) {
        return result;
    }
    BusError error;
    sd_bus_message* received = nullptr;
    result = sd_bus_call_method(bus.get(), kSystemd, object, interface, call.method, error.get(), &received,
                                "s", argument);
    const MessagePtr reply(received);
    if (result < 0) {
        call.logFailed(subject, error.message(), result);
        return result;
    }
    const char* read = nullptr;
    result = sd_bus_message_read(reply.get(), "o", &read);
    if (result < 0) {
        syslog(LOG_ERR, "%s: Failed to read response", call.function);
        return result;
    }
    path = read != nullptr ? read : "";
    return result;
}

int look_up_unit(const PathCall& call, const std::string& name, std::string& path)
{
    std::string found;
    const int result = call_for_path(call, kManagerPath, kManager, name.c_str(), name.c_str(), found);
    if (result >= 0) {
        call.logSucceeded(found.c_str(), name.c_str());
        path = found;
    }
    return result != 0 ? 1 : 0;
}

int queue_unit_job(const PathCall& call, const std::string& path)
{
    std::string job;
    const int result = call_for_path(call, path.c_str(), kUnit, "replace", path.c_str(), job);
    if (result >= 0) {
        call.logSucceeded(path.c_str(), job.c_str());
    }
    return result != 0 ? 1 : 0;
}

} // namespace

bool utils_enable_service(const std::string& unit)
{
    syslog(LOG_INFO, "[Utils] Trying to enable %s", unit.c_str());
    return change_unit_files(kEnable, unit);
}

bool utils_disable_service(const std::string& unit)
{
    return change_unit_files(kDisable, unit);
}

int utils_get_service_unit(const std::string& name, std::string& path)
{
    return look_up_unit(kGetUnit, name, path);
}

int utils_load_service_unit(const std::string& name, std::string& path)
{
    return look_up_unit(kLoadUnit, name, path);
}

int utils_start_service(const std::string& path)
{
    return queue_unit_job(kStart, path);
}

int utils_restart_service(const std::string& path)
{
    return queue_unit_job(kRestart, path);
}

int utils_stop_service(const std::string& path)
{
    return queue_unit_job(kStop, path);
}
