#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include <syslog.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include "options.hpp"
#include "service.hpp"
#include "store.hpp"
#include "support/bus_connection.hpp"
#include "support/sd_bus_owners.hpp"
#include "support/signal_set.hpp"

namespace {

using namespace settingsd;

/** Ends a step of the start-up: true when it went well, else the failure is logged. */
bool succeeded(int r, const char* step)
{
    if (r < 0) {
        syslog(LOG_ERR, "Cannot %s: %s", step, std::system_category().message(-r).c_str());
    }
    return r >= 0;
}

/** SIGTERM and SIGINT end the loop with status 0. Returns a negative errno on failure. */
int end_loop_on_signals(sd_event* event)
{
    const sigset_t signals = signal_set({SIGTERM, SIGINT});
    if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0) {
        return -errno;
    }
    for (const int number : {SIGTERM, SIGINT}) {
        const int r = sd_event_add_signal(event, nullptr, number, nullptr, nullptr);
        if (r < 0) {
            return r;
        }
    }
    return 0;
}

/** Makes the folder of the state file; one that cannot be made shows when something is to be stored. */
void make_folder_of(const std::string& stateFile)
{
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(stateFile).parent_path(), ignored);
}

int serve(const std::string& stateFile)
{
    sd_event* newEvent = nullptr;
    int r = sd_event_default(&newEvent);
    const EventPtr event(newEvent);
    if (!succeeded(r, "make an event loop") ||
        !succeeded(end_loop_on_signals(event.get()), "handle signals")) {
        return EXIT_FAILURE;
    }

    BusPtr bus;
    if (!succeeded(open_user_bus(bus), "open the user bus")) {
        return EXIT_FAILURE;
    }
    if (!succeeded(sd_bus_attach_event(bus.get(), event.get(), SD_EVENT_PRIORITY_NORMAL),
                   "attach the user bus")) {
        return EXIT_FAILURE;
    }
    make_folder_of(stateFile);
    SettingsStore store(stateFile, device_schema());
    SettingsService service(bus.get(), store);
    r = service.load();
    if (!succeeded(r == -EBUSY ? r : 0, "have the settings to itself") ||
        !succeeded(service.publish(), "publish the settings") ||
        !succeeded(sd_bus_request_name(bus.get(), kServiceName, 0),
                   "own the name com.vantora.common.Settings1") ||
        !succeeded(sd_bus_set_exit_on_disconnect(bus.get(), 1), "watch the user bus")) {
        return EXIT_FAILURE;
    }
    sd_notify(0, "READY=1");
    // Where the unit wants it (WatchdogSec=), the loop tells the service manager from now on that it is
    // alive.
    sd_event_set_watchdog(event.get(), 1);
    r = sd_event_loop(event.get());
    sd_notify(0, "STOPPING=1");
    if (r > 0) {
        syslog(LOG_ERR, "The user bus is gone");
    }
    return succeeded(r, "run the event loop") && r == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv)
{
    // Started by hand, the log shows on the terminal too.
    openlog("vantora-settingsd", ::isatty(STDERR_FILENO) != 0 ? LOG_PERROR : 0, LOG_DAEMON);
    // A file-size limit is one more way of having no room: an error to report, not a reason to die.
    std::signal(SIGXFSZ, SIG_IGN);

    const Options options = parse_options(argc, argv);
    switch (options.action) {
    case Options::Action::Help:
        print_help();
        return EXIT_SUCCESS;
    case Options::Action::Version:
        std::puts("vantora-settingsd " VANTORA_VERSION);
        return EXIT_SUCCESS;
    case Options::Action::Invalid:
        return 2;
    case Options::Action::Serve:
        break;
    }
    return serve(options.stateFile);
}
