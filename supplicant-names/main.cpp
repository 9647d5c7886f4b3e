#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>

#include <syslog.h>
#include <systemd/sd-daemon.h>

#include "bus_names.hpp"
#include "stand_in.hpp"
#include "supplicant_watch.hpp"
#include "support/sd_bus_owners.hpp"

namespace {

/** For those who hold a binary in their hands: strings(1) finds it. The program itself takes no arguments. */
[[gnu::used, gnu::retain]] const char* const kVersionText = "vantora-supplicant-names " VANTORA_VERSION;

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

/** Lets the stand-in for a wpa_supplicant go, and has another for the one that is there now. */
void follow(sd_event* event, const std::string& owner, std::unique_ptr<StandIn>& standIn)
{
    standIn.reset();
    if (owner.empty()) {
        return;
    }
    const int result = StandIn::make(event, owner, standIn);
    if (result < 0) {
        syslog(LOG_ERR, "[Names] Failed to stand in: %d", result);
        sd_event_exit(event, EXIT_FAILURE);
    }
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
    std::unique_ptr<StandIn> standIn;
    SupplicantWatch watch(bus.get());
    result = watch.begin([] { sd_notify(0, "READY=1"); },
                         [created, &standIn](const std::string& owner) { follow(created, owner, standIn); });
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
