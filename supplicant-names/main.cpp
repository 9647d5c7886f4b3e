#include <csignal>
#include <cstdlib>

#include <syslog.h>
#include <systemd/sd-daemon.h>

#include "bus_names.hpp"
#include "callers.hpp"
#include "older_name.hpp"
#include "supplicant.hpp"
#include "support/sd_bus_owners.hpp"

namespace {

/** For those who hold a binary in their hands: strings(1) finds it. The program itself takes no arguments. */
[[gnu::used, gnu::retain]] const char* const versionText = "vantora-supplicant-names " VANTORA_VERSION;

/** Ends the loop at SIGTERM and SIGINT. */
int end_with_signals(sd_event* event)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    // Without a handler and without a source to keep, the loop ends with status 0.
    const int result = sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr);
    return result < 0 ? result : sd_event_add_signal(event, nullptr, SIGINT, nullptr, nullptr);
}

/** Connects to the bus; its loss ends the loop. */
int open_bus(sd_event* event, BusPtr& bus)
{
    sd_bus* opened = nullptr;
    int result = sd_bus_open_system(&opened);
    bus.reset(opened);
    if (result >= 0) {
        result = sd_bus_attach_event(opened, event, SD_EVENT_PRIORITY_NORMAL);
    }
    return result < 0 ? result : sd_bus_set_exit_on_disconnect(opened, 1);
}

/** Connects who is there, who calls and what is owned to each other. */
int stand_in(Supplicant& supplicant, Callers& callers, OlderName& name)
{
    int result = callers.listen();
    if (result >= 0) {
        result = name.follow([&supplicant] { supplicant.locate_station(); });
    }
    if (result < 0) {
        return result;
    }
    const auto changed = [&supplicant, &callers, &name] {
        name.give_up();
        callers.go_on();
        supplicant.locate_station();
    };
    // A wpa_supplicant that answers has asked for the older name before, if it ever does.
    const auto located = [&callers, &name](sd_bus_message* error) {
        name.take();
        callers.station_located(error);
    };
    return supplicant.follow([] { sd_notify(0, "READY=1"); }, changed, located);
}

int run()
{
    sd_event* created = nullptr;
    int result = sd_event_new(&created);
    const EventPtr event(created);
    BusPtr bus;
    if (result >= 0) {
        result = end_with_signals(created);
    }
    if (result >= 0) {
        result = open_bus(created, bus);
    }
    if (result < 0) {
        syslog(LOG_ERR, "[Names] Failed to connect to the system bus: %d", result);
        return EXIT_FAILURE;
    }
    Supplicant supplicant(bus.get());
    Callers callers(bus.get(), supplicant);
    OlderName name(bus.get());
    result = stand_in(supplicant, callers, name);
    if (result < 0) {
        syslog(LOG_ERR, "[Names] Failed to use the system bus: %d", result);
        return EXIT_FAILURE;
    }
    // Where the unit wants it (WatchdogSec=), the loop tells the service manager that it is alive.
    sd_event_set_watchdog(created, 1);
    const int status = sd_event_loop(created);
    if (status != 0) {
        syslog(LOG_ERR, "[Names] Lost the system bus");
        return EXIT_FAILURE;
    }
    syslog(LOG_INFO, "[Names] Ending");
    return EXIT_SUCCESS;
}

} // namespace

int main()
{
    syslog(LOG_INFO, "[Names] Starting: calls to %s go to %s", kOlderName, kNewerName);
    return run();
}
