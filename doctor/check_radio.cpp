#include "checks.hpp"

#include <algorithm>
#include <string>

#include "iw_text.hpp"
#include "text_lines.hpp"

namespace doctor {

namespace {

/** The radio behind wlan0, or the first one. */
const Radio& radio_of_wlan0(const View& view, const std::vector<Radio>& radios)
{
    const std::string name =
        "phy" + iw_value(view.commands.run({"iw", "dev", "wlan0", "info"}).output, "wiphy");
    const auto found = std::ranges::find(radios, name, &Radio::name);
    return found != radios.end() ? *found : radios.front();
}

std::string bands_of(const Radio& radio)
{
    if (radio.usableLow > 0 && radio.usableHigh > 0) {
        return "2.4 and 5 GHz";
    }
    return radio.usableLow > 0 ? "2.4 GHz" : "5 GHz";
}

void check_bands(const Radio& radio, Findings& findings)
{
    if (!radio.accessPoint) {
        findings.bad("radio.access-point", "the radio " + radio.name + " cannot be an access point",
                     "Host mode needs one that can; its driver does not offer it",
                     R"(another radio or driver: "iw list" must have AP under "Supported interface modes")");
    } else if (radio.usableLow + radio.usableHigh == 0) {
        findings.bad("radio.access-point",
                     "the radio " + radio.name + " may be an access point on no channel",
                     "all channels are disabled, for listening only, or shared with radar",
                     "set country_code= in /etc/hostapd.conf and install wireless-regdb");
    } else {
        findings.good("radio.access-point",
                      "the radio " + radio.name + " can be an access point, on " + bands_of(radio));
    }
}

void check_radios(const View& view, Findings& findings)
{
    if (view.commands.find("iw").empty()) {
        findings.unseen("radio.present", "the radio cannot be looked at without iw", "apt install iw");
        return;
    }
    const Ran list = view.commands.run({"iw", "list"});
    if (list.timedOut) {
        findings.bad("radio.present", "\"iw list\" does not end",
                     "the driver does not answer the kernel: the daemon would hang in it, too",
                     "see what \"dmesg\" says of the radio, and restart the device");
        return;
    }
    const std::vector<Radio> radios = radios_in(list.output);
    if (radios.empty()) {
        findings.bad("radio.present", "the kernel knows no radio",
                     "without one there is neither access point nor station",
                     "see what \"dmesg\" says: the driver or its firmware is missing (Debian: firmware-*)");
        return;
    }
    check_bands(radio_of_wlan0(view, radios), findings);
}

void check_regulatory_domain(const View& view, Findings& findings)
{
    const Ran asked = view.commands.run({"iw", "reg", "get"});
    const std::string country = regulatory_country(asked.output);
    if (!asked.succeeded() || country.empty()) {
        findings.unseen("radio.country", "the regulatory domain cannot be asked for", "iw reg get");
    } else if (country == "00") {
        findings.warning("radio.country", "the regulatory domain is 00, that of no country",
                         "5 GHz is then for listening only, and hostapd may have to wait for the country",
                         "set country_code= in /etc/hostapd.conf, and install wireless-regdb");
    } else {
        findings.good("radio.country", "the regulatory domain is " + country);
    }
    const bool database = view.files.exists("/lib/firmware/regulatory.db") ||
                          view.files.exists("/usr/lib/firmware/regulatory.db");
    if (!database && country == "00") {
        findings.warning("radio.database", "there is no regulatory database in /lib/firmware",
                         "the kernel cannot look up what a country allows", "apt install wireless-regdb");
    }
}

void check_switch(const View& view, Findings& findings)
{
    const auto device = view.files.status("/dev/rfkill");
    if (!device || S_ISREG(device->st_mode) || S_ISDIR(device->st_mode)) {
        findings.bad("radio.rfkill", "there is no device /dev/rfkill",
                     "the radio cannot be switched, and reads as on whatever it is",
                     "modprobe rfkill; a kernel without CONFIG_RFKILL has to be built with it");
        return;
    }
    const Ran list = view.commands.run({"rfkill", "list", "wlan"});
    if (list.timedOut) {
        findings.bad("radio.rfkill", "\"rfkill list wlan\" does not end",
                     "the daemon runs it for every reading of the radio's power and waits for its end",
                     "find out what holds /dev/rfkill: fuser -v /dev/rfkill");
    } else if (list.output.find("Hard blocked: yes") != std::string::npos) {
        findings.warning("radio.rfkill", "a switch of the device keeps the radio off",
                         "no program can switch it on",
                         "move the switch, or see what the driver takes for one");
    } else if (list.output.find("Soft blocked: yes") != std::string::npos) {
        findings.note("radio.rfkill", "/dev/rfkill is there; the radio is switched off",
                      "vantora-wifi on switches it on");
    } else {
        findings.good("radio.rfkill", "/dev/rfkill is there; nothing keeps the radio off");
    }
}

} // namespace

void check_radio(const View& view, Findings& findings)
{
    check_radios(view, findings);
    if (!view.commands.find("iw").empty()) {
        check_regulatory_domain(view, findings);
    }
    check_switch(view, findings);
}

} // namespace doctor
