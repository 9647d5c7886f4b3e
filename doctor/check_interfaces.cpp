#include "checks.hpp"

#include <algorithm>
#include <string>

#include "iw_text.hpp"

namespace doctor {

namespace {

bool is_there(const View& view, const char* interface)
{
    return std::ranges::find(view.interfaces, interface) != view.interfaces.end();
}

void check_wlan0(const View& view, Findings& findings)
{
    const auto wireless = wireless_interfaces(view.commands.run({"iw", "dev"}).output);
    if (!is_there(view, "wlan0")) {
        const std::string other = wireless.empty() ? "" : wireless.front();
        findings.bad("interfaces.wlan0",
                     other.empty() ? "there is no interface wlan0"
                                   : "there is no interface wlan0; the radio's is called " + other,
                     "the daemon and its units know the radio by this name only",
                     other.empty()
                         ? "the radio's driver makes it: see what is said of the radio"
                         : "net.ifnames=0 on the kernel's command line, or a file "
                           "/etc/systemd/network/10-wlan0.link that gives it the name; then restart");
        return;
    }
    const Ran info = view.commands.run({"iw", "dev", "wlan0", "info"});
    // Where there is no radio at all, that is said of the radio.
    if (info.found && !info.timedOut && info.status != 0 && !wireless.empty()) {
        findings.bad("interfaces.wlan0", "wlan0 is no wireless interface",
                     "it belongs to something else than a radio",
                     "rename it, so that the radio's interface can have the name");
        return;
    }
    const std::string type = iw_value(info.output, "type");
    findings.good("interfaces.wlan0", "wlan0 is there" + (type.empty() ? "" : ", of type " + type));
}

} // namespace

void check_interfaces(const View& view, Findings& findings)
{
    check_wlan0(view, findings);
    if (is_there(view, "eth0")) {
        findings.good("interfaces.eth0", "eth0 is there");
    } else {
        findings.warning("interfaces.eth0", "there is no interface eth0", "its DHCP server is never started",
                         "none on a device without a socket for a cable; else net.ifnames=0 on the kernel's "
                         "command line, or a file /etc/systemd/network/10-eth0.link that gives it the name");
    }
}

} // namespace doctor
