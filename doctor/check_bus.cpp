#include "checks.hpp"

#include <string>

#include "service_manager.hpp"

namespace doctor {

void check_user_bus(const View& view, Findings& findings)
{
    const Reply system = view.system.owner("org.freedesktop.systemd1");
    if (!system.answered()) {
        findings.bad("bus.system", "the system bus does not answer: " + system.text,
                     "systemd and wpa_supplicant are reached there",
                     "systemctl status dbus.service dbus.socket");
    } else {
        findings.good("bus.system", "the system bus answers");
    }

    const Reply user = view.user.owner("com.vantora.Network1");
    if (user.answered()) {
        findings.good("bus.user", "root's user bus answers");
    } else if (!view.root) {
        findings.unseen("bus.user", "root's user bus lets in nobody but root", kAsRoot);
    } else if (user.kind == Reply::Kind::Silent || view.files.exists("/run/user/0/bus")) {
        findings.bad("bus.user", "root's user bus is there and does not let anybody in: " + user.text,
                     "the daemon ends without it", "systemctl restart user@0.service");
    } else {
        const Unit manager = Unit::look_up(view.system, "user@0.service");
        const bool startable = manager.is_loaded() && !manager.is_active();
        findings.bad("bus.user", "there is no user bus of root at /run/user/0/bus",
                     "the daemon's object is there, and it ends without that bus",
                     "apt install dbus-user-session, then systemctl restart user@0.service",
                     startable ? Remedy{RemedyKind::StartUnit, "user@0.service"} : Remedy{});
    }
}

} // namespace doctor
