// Each check on a device on which all is well but one thing.

#include <chrono>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "doctor/fix.hpp"
#include "support/healthy_device.hpp"
#include "support/unique_fd.hpp"

namespace {

using doctor::Json;
using doctor::RemedyKind;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing_support::HealthyDevice;
using testing_support::PlayedBus;

TEST(DoctorChecks, FindNothingWhereAllIsWell)
{
    HealthyDevice device;
    EXPECT_THAT(device.complaints(), IsEmpty());
    EXPECT_EQ(device.findings().exit_status(), 0);
    EXPECT_EQ(device.findings().all().front().text, "rfkill is there");
    EXPECT_EQ(device.findings().all()[1].text, "iw 5.19");
    EXPECT_EQ(device.findings().all()[5].text, "hostapd 2.10");
}

TEST(DoctorChecks, TellHowLongTheDaemonHasRunInTheLargestUnitThatItFills)
{
    constexpr std::uint64_t kBegan = 1'000'000;
    const std::vector<std::pair<std::uint64_t, std::string>> told = {
        {0, "a moment"},      {1, "1 second"},       {59, "59 seconds"},
        {60, "1 minute"},     {3'599, "59 minutes"}, {3'600, "1 hour"},
        {86'399, "23 hours"}, {86'400, "1 day"},     {259'200, "3 days"}};
    for (const auto& [seconds, words] : told) {
        HealthyDevice device;
        device.system.unit("vantora-network.service")["ActiveEnterTimestampMonotonic"] = kBegan;
        doctor::View view = device.view();
        view.sinceBoot = std::chrono::microseconds(kBegan + 1'000'000 * seconds);
        const doctor::Findings findings = doctor::look_at(view);
        EXPECT_THAT(findings.all(),
                    Contains(Field(&doctor::Finding::text, "the daemon has been running for " + words)));
    }
}

using Act = std::function<void(HealthyDevice&)>;

/** One thing that is broken, and what is said of it. */
struct Broken
{
    const char* name;
    Act act;
    const char* complaint;
    int status;
    const char* mend;
};

void PrintTo(const Broken& broken, std::ostream* out)
{
    *out << broken.name;
}

class DoctorFindsBroken : public testing::TestWithParam<Broken>
{
};

TEST_P(DoctorFindsBroken, AndNothingElse)
{
    HealthyDevice device;
    GetParam().act(device);
    EXPECT_THAT(device.complaints(), ElementsAre(GetParam().complaint));
    const doctor::Findings findings = device.findings();
    EXPECT_EQ(findings.exit_status(), GetParam().status);
    for (const doctor::Finding& finding : findings.all()) {
        if (finding.level >= doctor::Level::Unseen) {
            EXPECT_THAT(finding.mend, HasSubstr(GetParam().mend));
            EXPECT_FALSE(finding.mend.empty());
        }
    }
}

// What changes one thing of a device

Act without_file(const std::string& file)
{
    return [=](HealthyDevice& device) { device.remove(file); };
}

Act file_has(const std::string& file, const std::string& text)
{
    return [=](HealthyDevice& device) { device.root.write(file, text); };
}

Act without_command(const std::string& name)
{
    return [=](HealthyDevice& device) { device.commands.installed.erase(name); };
}

Act command_says(const std::string& line, const std::string& output, int status = 0)
{
    return [=](HealthyDevice& device) { device.commands.says(line, output, status); };
}

Act command_hangs(const std::string& line)
{
    return [=](HealthyDevice& device) { device.commands.hangs(line); };
}

Act unit_has(const std::string& unit, const char* property, const Json& value)
{
    return [=](HealthyDevice& device) { device.system.unit(unit)[property] = value; };
}

Act user_bus_answers(const std::string& call, const doctor::Reply& reply)
{
    return [=](HealthyDevice& device) { device.user.answers[call] = reply; };
}

/** A template that hostapd has this to say of. */
void refuse_template(HealthyDevice& device, const std::string& line, const std::string& said)
{
    device.root.write("etc/hostapd.conf", HealthyDevice::kTemplate + line);
    device.commands.says(HealthyDevice::kJudge,
                         said + "\n1 errors found in configuration file '/dev/stdin'\n"
                                "Failed to set up interface with /dev/stdin\n",
                         1);
}

INSTANTIATE_TEST_SUITE_P(
    Programs, DoctorFindsBroken,
    testing::Values(Broken{"iproute", without_command("ip"), "bad programs.ip: ip is not installed", 2,
                           "apt install iproute2"},
                    Broken{"egrep", without_command("egrep"), "bad programs.egrep: egrep is not installed", 2,
                           "grep"},
                    Broken{"wpa_cli", without_command("wpa_cli"),
                           "bad programs.wpa_cli: wpa_cli is not installed", 2, "apt install wpasupplicant"},
                    Broken{"busybox", without_command("busybox"),
                           "warning programs.busybox: busybox is not installed", 1, "apt install busybox"},
                    Broken{"applet", command_says("busybox --list", "sh\nudhcpc\n"),
                           "warning programs.udhcpd: busybox has no udhcpd", 1, "busybox"}));

INSTANTIATE_TEST_SUITE_P(
    Radio, DoctorFindsBroken,
    testing::Values(
        Broken{"no radio", command_says("iw list", ""), "bad radio.present: the kernel knows no radio", 2,
               "dmesg"},
        Broken{"hanging driver", command_hangs("iw list"), "bad radio.present: \"iw list\" does not end", 2,
               "dmesg"},
        Broken{"station only",
               command_says("iw list", "Wiphy phy0\n\tSupported interface modes:\n\t\t * managed\n"),
               "bad radio.access-point: the radio phy0 cannot be an access point", 2, "iw list"},
        Broken{"no channel",
               command_says("iw list",
                            "Wiphy phy0\n\tSupported interface modes:\n\t\t * AP\n\t\t\t* 2412 MHz [1] "
                            "(disabled)\n\t\t\t* 5180 MHz [36] (20.0 dBm) (no IR)\n"),
               "bad radio.access-point: the radio phy0 may be an access point on no channel", 2,
               "country_code="},
        Broken{"no country",
               [](HealthyDevice& device) {
                   device.root.write("lib/firmware/regulatory.db", "");
                   device.commands.says("iw reg get", "global\ncountry 00: DFS-UNSET\n");
               },
               "warning radio.country: the regulatory domain is 00, that of no country", 1, "country_code="},
        Broken{"no rfkill", without_file("dev/rfkill"), "bad radio.rfkill: there is no device /dev/rfkill", 2,
               "modprobe rfkill"},
        Broken{"rfkill is a file",
               [](HealthyDevice& device) {
                   device.remove("dev/rfkill");
                   device.root.write("dev/rfkill", "");
               },
               "bad radio.rfkill: there is no device /dev/rfkill", 2, "modprobe rfkill"},
        Broken{"rfkill hangs", command_hangs("rfkill list wlan"),
               "bad radio.rfkill: \"rfkill list wlan\" does not end", 2, "fuser"},
        Broken{"switch",
               command_says("rfkill list wlan", "0: phy0\n\tSoft blocked: no\n\tHard blocked: yes\n"),
               "warning radio.rfkill: a switch of the device keeps the radio off", 1, "switch"},
        Broken{"no wlan0",
               [](HealthyDevice& device) {
                   device.interfaces = {"lo", "eth0", "wlp1s0"};
                   device.commands.says("iw dev", "phy#0\n\tInterface wlp1s0\n");
               },
               "bad interfaces.wlan0: there is no interface wlan0; the radio's is called wlp1s0", 2,
               "net.ifnames=0"},
        Broken{"wlan0 of another kind", command_says("iw dev wlan0 info", "command failed: -19\n", 237),
               "bad interfaces.wlan0: wlan0 is no wireless interface", 2, "rename"},
        Broken{"no eth0",
               [](HealthyDevice& device) {
                   device.interfaces = {"lo", "wlan0"};
               },
               "warning interfaces.eth0: there is no interface eth0", 1, "eth0"}));

/** What the package for devices does: at boot by a variable, and later by a mask. */
void keep_ifupdown_off(HealthyDevice& device)
{
    device.system.unit("networking.service")["ActiveState"] = "active";
    device.system.answers["Get /unit/networking.service org.freedesktop.systemd1.Service Environment"] =
        PlayedBus::answered(Json::array({"PATH=/bin", "EXCLUDE_INTERFACES=wlan0"}));
    device.system.unit("ifup@wlan0.service")["LoadState"] = "masked";
}

/** Another manager that runs, and is kept off wlan0. */
struct KeptOff
{
    const char* name;
    Act act;
};

void PrintTo(const KeptOff& manager, std::ostream* out)
{
    *out << manager.name;
}

class DoctorIsContentWith : public testing::TestWithParam<KeptOff>
{
};

TEST_P(DoctorIsContentWith, AManagerThatLeavesWlan0Alone)
{
    HealthyDevice device;
    GetParam().act(device);
    EXPECT_THAT(device.complaints(), IsEmpty());
}

/** dhcpcd runs, started like this. */
void run_dhcpcd(HealthyDevice& device, const std::vector<std::string>& words)
{
    device.system.unit("dhcpcd.service")["ActiveState"] = "active";
    device.system.runs("dhcpcd.service", words);
}

/** connman runs, started like this. */
void run_connman(HealthyDevice& device, const std::vector<std::string>& words)
{
    device.system.owns("net.connman");
    device.system.unit("connman.service")["ActiveState"] = "active";
    device.system.runs("connman.service", words);
}

INSTANTIATE_TEST_SUITE_P(
    Managers, DoctorIsContentWith,
    testing::Values(
        KeptOff{"NetworkManager",
                [](HealthyDevice& device) {
                    device.system.owns("org.freedesktop.NetworkManager");
                    device.system.answers["GetDeviceByIpIface wlan0"] = PlayedBus::answered("/device/1");
                    device.system.answers["Get /device/1 org.freedesktop.NetworkManager.Device Managed"] =
                        PlayedBus::answered(false);
                }},
        KeptOff{"networkd",
                [](HealthyDevice& device) {
                    device.system.owns("org.freedesktop.network1");
                    device.system.answers["GetLinkByName wlan0"] = {doctor::Reply::Kind::Answered,
                                                                    Json::array({3, "/link/_33"}), "", ""};
                    device.system.answers["Get /link/_33 org.freedesktop.network1.Link AdministrativeState"] =
                        PlayedBus::answered("unmanaged");
                }},
        KeptOff{"iwd that knows a network of that name",
                [](HealthyDevice& device) {
                    device.system.owns("net.connman.iwd");
                    device.system.answers["GetManagedObjects"] = PlayedBus::answered(
                        {{"/net/connman/iwd/0/3", {{"net.connman.iwd.Device", {{"Name", "wlan1"}}}}},
                         {"/net/connman/iwd/0/3/77_psk",
                          {{"net.connman.iwd.Network", {{"Name", "wlan0"}}}}}});
                }},
        KeptOff{"connman by its file",
                [](HealthyDevice& device) {
                    device.system.owns("net.connman");
                    device.root.write("etc/connman/main.conf",
                                      "# ours\n[General]\n NetworkInterfaceBlacklist = eth1 , wlan\n");
                }},
        KeptOff{"connman by a file of another name",
                [](HealthyDevice& device) {
                    run_connman(device, {"/usr/sbin/connmand", "-n", "--config=/etc/other.conf"});
                    device.root.write("etc/other.conf", "[General]\nNetworkInterfaceBlacklist=wlan0\n");
                }},
        KeptOff{"connman by its command line",
                [](HealthyDevice& device) {
                    run_connman(device, {"/usr/sbin/connmand", "-n", "-I", "wlan0"});
                }},
        KeptOff{"connman by its command line, with a pattern",
                [](HealthyDevice& device) {
                    run_connman(device, {"/usr/sbin/connmand", "-rI", "eth1,wl*"});
                }},
        KeptOff{"connman by its command line, at length",
                [](HealthyDevice& device) {
                    run_connman(device, {"/usr/sbin/connmand", "--nodevice", "wlan0"});
                }},
        KeptOff{"connman that may have a cable only",
                [](HealthyDevice& device) {
                    run_connman(device, {"/usr/sbin/connmand", "-n", "-i", "eth?"});
                }},
        KeptOff{"dhcpcd by its command line",
                [](HealthyDevice& device) {
                    run_dhcpcd(device, {"/usr/sbin/dhcpcd", "-q", "-b", "-Z", "wlan0"});
                }},
        KeptOff{"dhcpcd by its command line, briefly",
                [](HealthyDevice& device) {
                    run_dhcpcd(device, {"/usr/sbin/dhcpcd", "-qbZeth1,wl*"});
                }},
        KeptOff{"dhcpcd by its command line, at length",
                [](HealthyDevice& device) {
                    run_dhcpcd(device, {"/usr/sbin/dhcpcd", "--quiet", "--denyinterfaces", "eth1 wlan0"});
                }},
        KeptOff{"dhcpcd that may have a cable only",
                [](HealthyDevice& device) {
                    run_dhcpcd(device, {"/usr/sbin/dhcpcd", "--allowinterfaces=e*"});
                }},
        KeptOff{"dhcpcd by its file",
                [](HealthyDevice& device) {
                    run_dhcpcd(device, {"/usr/sbin/dhcpcd", "-q", "-b"});
                    device.root.write("etc/dhcpcd.conf", "hostname\n denyinterfaces\tveth* wlan0\n");
                }},
        KeptOff{"dhcpcd by a file of another name",
                [](HealthyDevice& device) {
                    run_dhcpcd(device, {"/usr/sbin/dhcpcd", "-f", "/etc/other.conf"});
                    device.root.write("etc/other.conf", "denyinterfaces wlan0\n");
                }},
        KeptOff{"ifupdown",
                [](HealthyDevice& device) {
                    device.root.write("etc/network/interfaces",
                                      "auto wlan0\nallow-hotplug wlan0\niface wlan0 inet dhcp\n");
                    keep_ifupdown_off(device);
                }},
        KeptOff{"ifupdown that does nothing",
                file_has("etc/network/interfaces", "iface wlan0 inet\tmanual \n")},
        KeptOff{"ifupdown of a longer name", file_has("etc/network/interfaces", "iface wlan00 inet dhcp\n")},
        KeptOff{"ifupdown by a file", [](HealthyDevice& device) {
                    device.root.write("etc/network/interfaces", "auto wlan0\niface wlan0 inet dhcp\n");
                    device.system.unit("ifup@wlan0.service")["LoadState"] = "masked";
                    device.root.write("etc/default/networking", "EXCLUDE_INTERFACES=\"eth1 wlan0\"\n");
                }}));

INSTANTIATE_TEST_SUITE_P(
    Managers, DoctorFindsBroken,
    testing::Values(
        Broken{"NetworkManager",
               [](HealthyDevice& device) {
                   device.system.owns("org.freedesktop.NetworkManager");
                   device.system.answers["GetDeviceByIpIface wlan0"] = PlayedBus::answered("/device/1");
                   device.system.answers["Get /device/1 org.freedesktop.NetworkManager.Device Managed"] =
                       PlayedBus::answered(true);
               },
               "bad managers.NetworkManager: NetworkManager manages wlan0", 2, "unmanaged-devices"},
        Broken{"networkd",
               [](HealthyDevice& device) {
                   device.system.owns("org.freedesktop.network1");
                   device.system.answers["GetLinkByName wlan0"] = {doctor::Reply::Kind::Answered,
                                                                   Json::array({3, "/link/_33"}), "", ""};
                   device.system.answers["Get /link/_33 org.freedesktop.network1.Link AdministrativeState"] =
                       PlayedBus::answered("configured");
               },
               "bad managers.systemd-networkd: systemd-networkd manages wlan0 (it is configured)", 2,
               "Unmanaged=yes"},
        Broken{"iwd",
               [](HealthyDevice& device) {
                   device.system.owns("net.connman.iwd");
                   device.system.answers["GetManagedObjects"] = PlayedBus::answered(
                       {{"/net/connman/iwd/0/3", {{"net.connman.iwd.Device", {{"Name", "wlan0"}}}}}});
               },
               "bad managers.iwd: iwd has wlan0", 2, "systemctl mask --now iwd.service"},
        Broken{"connman", [](HealthyDevice& device) { device.system.owns("net.connman"); },
               "bad managers.connman: connman runs and is not told to leave wlan0 alone", 2,
               "put wlan0 into NetworkInterfaceBlacklist= of [General] in /etc/connman/main.conf"},
        Broken{"connman that is kept off another interface",
               [](HealthyDevice& device) {
                   // Neither part of a name, nor a list with blanks, nor an option that is a value.
                   run_connman(device, {"/usr/sbin/connmand", "-i", "e*,wl*", "-I", "wlan,eth0, wlan0", "-W",
                                        "-I", "wlan0"});
                   device.root.write("etc/connman/main.conf",
                                     "[General]\nNetworkInterfaceBlacklist=wlan01,wl*,eth0;wlan0,\n");
               },
               "bad managers.connman: connman runs and is not told to leave wlan0 alone", 2,
               "systemctl restart connman.service"},
        Broken{"connman that is told something else last",
               [](HealthyDevice& device) {
                   run_connman(device, {"/usr/sbin/connmand", "-I", "wlan0", "--nodevice=wlan[0]"});
                   device.root.write("etc/connman/main.conf",
                                     "[General]\nNetworkInterfaceBlacklist=wlan0\n[Other]\n[General]\n"
                                     "NetworkInterfaceBlacklist=eth0\n");
               },
               "bad managers.connman: connman runs and is not told to leave wlan0 alone", 2,
               "NetworkInterfaceBlacklist"},
        Broken{"connman whose file has the line outside of its group",
               [](HealthyDevice& device) {
                   run_connman(device, {"/usr/sbin/connmand", "-c", "/etc/other.conf"});
                   device.root.write("etc/other.conf", "NetworkInterfaceBlacklist=wlan0\n[Other]\n"
                                                       "NetworkInterfaceBlacklist=wlan0\n");
                   device.root.write("etc/connman/main.conf", "[General]\nNetworkInterfaceBlacklist=wlan0\n");
               },
               "bad managers.connman: connman runs and is not told to leave wlan0 alone", 2,
               "in /etc/other.conf, then systemctl restart connman.service"},
        Broken{"dhcpcd", unit_has("dhcpcd.service", "ActiveState", "active"),
               "bad managers.dhcpcd: dhcpcd runs and is not told to leave wlan0 alone", 2,
               "denyinterfaces wlan0"},
        Broken{"dhcpcd that is kept off another interface",
               [](HealthyDevice& device) {
                   device.system.unit("dhcpcd.service")["ActiveState"] = "active";
                   device.system.runs("dhcpcd.service", {"/usr/sbin/dhcpcd", "-qbZ", "wlan1,eth*", "wlan0"});
                   device.root.write("etc/dhcpcd.conf", "interface eth0\ndenyinterfaces wlan0\n");
               },
               "bad managers.dhcpcd: dhcpcd runs and is not told to leave wlan0 alone", 2,
               "into /etc/dhcpcd.conf, then systemctl restart dhcpcd.service"},
        Broken{"dhcpcd of wlan0 alone, with a file of its own",
               [](HealthyDevice& device) {
                   device.system.unit("dhcpcd@wlan0.service")["ActiveState"] = "active";
                   device.system.runs("dhcpcd@wlan0.service",
                                      {"/usr/sbin/dhcpcd", "--config=/etc/radio.conf", "-w", "wlan0"});
                   device.root.write("etc/dhcpcd.conf", "denyinterfaces wlan0\n");
               },
               "bad managers.dhcpcd: dhcpcd runs and is not told to leave wlan0 alone", 2,
               "into /etc/radio.conf, then systemctl restart dhcpcd@wlan0.service"},
        Broken{"ifupdown",
               [](HealthyDevice& device) {
                   device.root.write("etc/network/interfaces", "auto lo\n");
                   device.root.write("etc/network/interfaces.d/radio",
                                     "allow-hotplug wlan0\niface wlan0 inet dhcp\n");
               },
               "bad managers.ifupdown: ifupdown configures wlan0: line 2 of /etc/network/interfaces.d/radio",
               2, "/etc/network/interfaces.d/radio"},
        Broken{"ifupdown with tabs",
               file_has("etc/network/interfaces", "auto lo\n\tiface\twlan0  inet\tdhcp\n"),
               "bad managers.ifupdown: ifupdown configures wlan0: line 2 of /etc/network/interfaces", 2,
               "/etc/network/interfaces"},
        Broken{"ifupdown that leaves wlan0 alone at boot only",
               [](HealthyDevice& device) {
                   device.root.write("etc/network/interfaces",
                                     "allow-hotplug wlan0\niface wlan0 inet dhcp\n");
                   keep_ifupdown_off(device);
                   device.system.unit("ifup@wlan0.service")["LoadState"] = "loaded";
               },
               "bad managers.ifupdown: ifupdown configures wlan0: line 2 of /etc/network/interfaces", 2,
               "/etc/network/interfaces"},
        Broken{"ifupdown that a person has told otherwise",
               [](HealthyDevice& device) {
                   device.root.write("etc/network/interfaces", "auto wlan0\niface wlan0 inet dhcp\n");
                   keep_ifupdown_off(device);
                   device.root.write("etc/default/networking",
                                     "#EXCLUDE_INTERFACES=wlan0\nEXCLUDE_INTERFACES=\"eth1\"\n");
               },
               "bad managers.ifupdown: ifupdown configures wlan0: line 2 of /etc/network/interfaces", 2,
               "/etc/network/interfaces"},
        Broken{"Debian's station", unit_has("wpa_supplicant.service", "UnitFileState", "enabled"),
               "bad managers.wpa_supplicant: Debian's wpa_supplicant.service is enabled", 2, "mask --now"}));

INSTANTIATE_TEST_SUITE_P(
    Units, DoctorFindsBroken,
    testing::Values(
        Broken{"masked", unit_has("udhcpd.service", "LoadState", "masked"),
               "bad units.udhcpd.service: udhcpd.service is masked", 2, "systemctl unmask udhcpd.service"},
        Broken{"missing", unit_has("udhcpc@wlan0.service", "LoadState", "not-found"),
               "bad units.udhcpc@wlan0.service: there is no unit udhcpc@wlan0.service", 2, "vantora-device"},
        Broken{"nonsense", unit_has("udhcpd.service", "LoadState", "bad-setting"),
               "bad units.udhcpd.service: udhcpd.service cannot be loaded: bad-setting", 2,
               "systemd-analyze verify"},
        Broken{"enabled", unit_has("hostapd.service", "UnitFileState", "enabled"),
               "warning units.hostapd.service: hostapd.service is enabled", 1,
               "systemctl disable hostapd.service"},
        Broken{"failed", unit_has("udhcpd.service", "ActiveState", "failed"),
               "warning units.udhcpd.service: udhcpd.service has failed when it was last started", 1,
               "journalctl"},
        Broken{"old", unit_has("udhcpd.service", "NeedDaemonReload", true),
               "warning units.udhcpd.service: the file of udhcpd.service has changed since systemd read it",
               1, "daemon-reload"},
        Broken{
            "Debian's hostapd",
            [](HealthyDevice& device) {
                device.system.answers.erase(
                    "Get /unit/hostapd.service org.freedesktop.systemd1.Service ExecStartPre");
                device.system.runs("hostapd.service", {"/usr/sbin/hostapd", "-B", "${DAEMON_CONF}"});
            },
            "bad units.hostapd.service: hostapd.service runs hostapd on another file than /run/hostapd.conf, which "
            "the daemon writes",
            2, "systemctl edit --full hostapd.service"},
        Broken{"station without D-Bus",
               [](HealthyDevice& device) {
                   device.system.runs("wpa_supplicant-nl80211@wlan0.service",
                                      {"/sbin/wpa_supplicant", "-iwlan0"});
               },
               "bad units.wpa_supplicant-nl80211@wlan0.service: wpa_supplicant-nl80211@wlan0.service runs "
               "wpa_supplicant without its D-Bus interface (-u)",
               2, "systemctl edit"},
        Broken{"no wired server", without_file("etc/korrin/udhcpd_eth0.service"),
               "warning units.udhcpd_eth0.service: there is no file /etc/korrin/udhcpd_eth0.service", 1,
               "vantora-device"},
        Broken{"wired server without Install",
               file_has("etc/korrin/udhcpd_eth0.service", "[Service]\n#[Install]\n"),
               "warning units.udhcpd_eth0.service: /etc/korrin/udhcpd_eth0.service has no section [Install]",
               1, "[Install]"}));

INSTANTIATE_TEST_SUITE_P(
    Hostapd, DoctorFindsBroken,
    testing::Values(
        Broken{"no template", without_file("etc/hostapd.conf"),
               "bad hostapd.template: /etc/hostapd.conf cannot be read: No such file or directory", 2,
               "vantora-device"},
        Broken{"a pipe in its place",
               [](HealthyDevice& device) {
                   device.remove("etc/hostapd.conf");
                   ::mkfifo(device.root.file("etc/hostapd.conf").c_str(), 0600);
               },
               "bad hostapd.template: /etc/hostapd.conf cannot be read: Invalid argument", 2,
               "vantora-device"},
        Broken{"no control socket",
               [](HealthyDevice& device) {
                   std::string text = HealthyDevice::kTemplate;
                   text.erase(text.find("ctrl_interface"),
                              std::string("ctrl_interface=/var/run/hostapd\n").size());
                   device.root.write("etc/hostapd.conf", text);
               },
               "bad hostapd.ctrl_interface: /etc/hostapd.conf has no ctrl_interface", 2,
               "ctrl_interface=/var/run/hostapd"},
        Broken{"another control socket",
               [](HealthyDevice& device) {
                   std::string text = HealthyDevice::kTemplate;
                   text.replace(text.find("=/var/run/hostapd"), 17, "=DIR=/tmp/x GROUP=0");
                   device.root.write("etc/hostapd.conf", text);
               },
               "bad hostapd.ctrl_interface: ctrl_interface on line 4 is /tmp/x, not /var/run/hostapd", 2,
               "line 4"},
        Broken{"another interface",
               [](HealthyDevice& device) {
                   std::string text = HealthyDevice::kTemplate;
                   text.replace(text.find("wlan0"), 5, "wlan1");
                   device.root.write("etc/hostapd.conf", text);
               },
               "bad hostapd.interface: /etc/hostapd.conf does not say interface=wlan0", 2, "line 2"},
        Broken{
            "unknown key",
            [](HealthyDevice& device) {
                refuse_template(device, "aardvark=1\n", "Line 1: unknown configuration item 'aardvark'");
            },
            "bad hostapd.accepted: hostapd refuses line 11 (aardvark): unknown configuration item 'aardvark'",
            2, "edit line 11 of /etc/hostapd.conf"},
        Broken{
            "no passphrase at all",
            [](HealthyDevice& device) {
                refuse_template(device, "", "WPA-PSK enabled, but PSK or passphrase is not configured.");
            },
            "bad hostapd.accepted: hostapd refuses the template: WPA-PSK enabled, but PSK or passphrase is not configured.",
            2, "/etc/hostapd.conf"},
        Broken{"a key twice", file_has("etc/hostapd.conf", std::string(HealthyDevice::kTemplate) + "wpa=2\n"),
               "warning hostapd.template: line 11 of /etc/hostapd.conf sets wpa again: line 7 does not count",
               1, "line 11"},
        Broken{
            "carriage return",
            file_has("etc/hostapd.conf", std::string(HealthyDevice::kTemplate) + "wmm_enabled=1\r\n"),
            "bad hostapd.template: line 11 of /etc/hostapd.conf ends with a carriage return, as files from another "
            "system do",
            2, "line 11"},
        Broken{"sample passphrase",
               [](HealthyDevice& device) {
                   std::string text = HealthyDevice::kTemplate;
                   text.replace(text.find("korrin-secret"), 13, "change me");
                   device.root.write("etc/hostapd.conf", text);
               },
               "warning hostapd.passphrase: the passphrase is the one of the documentation's sample", 1,
               "line 10"},
        Broken{
            "open",
            file_has("etc/hostapd.conf", "interface=wlan0\nctrl_interface=/run/hostapd\ncountry_code=NL\n"),
            "warning hostapd.wpa: the access point has no passphrase (no wpa= in /etc/hostapd.conf)", 1,
            "wpa=2"},
        Broken{"no country",
               [](HealthyDevice& device) {
                   std::string text = HealthyDevice::kTemplate;
                   text.erase(text.find("country_code"), std::string("country_code=NL\n").size());
                   device.root.write("etc/hostapd.conf", text);
               },
               "warning hostapd.country_code: /etc/hostapd.conf has no country_code", 1, "country_code="},
        Broken{"for all to read",
               [](HealthyDevice& device) { ::chmod(device.root.file("etc/hostapd.conf").c_str(), 0644); },
               "warning hostapd.mode: others than root may read /etc/hostapd.conf", 1, "chmod 600"},
        Broken{"dialect",
               [](HealthyDevice& device) {
                   device.system.answers.erase(
                       "Get /unit/hostapd.service org.freedesktop.systemd1.Service ExecStartPre");
                   device.system.runs("hostapd.service", {"/usr/sbin/hostapd", "/run/hostapd.conf"});
                   device.speak_debians_dialect();
               },
               "bad hostapd.dialect: hostapd does not know acs_blacklist, which the daemon always writes", 2,
               "vantora-device"},
        Broken{"hostapd hangs", command_hangs(HealthyDevice::kJudge),
               "unseen hostapd.accepted: hostapd gives no judgement on the template", 1, "hostapd -v"}));

INSTANTIATE_TEST_SUITE_P(
    Supplicant, DoctorFindsBroken,
    testing::Values(
        Broken{"no file", without_file("etc/wpa_supplicant/wpa_supplicant-nl80211-wlan0.conf"),
               "bad supplicant.file: there is no /etc/wpa_supplicant/wpa_supplicant-nl80211-wlan0.conf", 2,
               "ctrl_interface="},
        Broken{
            "no control socket", file_has("etc/wpa_supplicant/wpa_supplicant-nl80211-wlan0.conf", "\n"),
            "warning supplicant.file: /etc/wpa_supplicant/wpa_supplicant-nl80211-wlan0.conf has no ctrl_interface",
            1, "ctrl_interface=/var/run/wpa_supplicant"},
        Broken{"nobody stands in", unit_has("vantora-supplicant-names.service", "LoadState", "not-found"),
               "warning supplicant.stand-in: vantora-supplicant-names is not installed", 1,
               "apt install vantora-supplicant-names"},
        Broken{"the stand-in does not run",
               unit_has("vantora-supplicant-names.service", "ActiveState", "inactive"),
               "bad supplicant.stand-in: vantora-supplicant-names does not run", 2,
               "systemctl start vantora-supplicant-names.service"},
        Broken{
            "another station",
            [](HealthyDevice& device) {
                device.system.owns("fi.w1.wpa_supplicant1");
                device.system.owns("fi.epitest.hostap.WPASupplicant");
            },
            "bad supplicant.newer-name: fi.w1.wpa_supplicant1 is owned by another wpa_supplicant than that of "
            "wpa_supplicant-nl80211@wlan0.service",
            2, "systemctl mask --now wpa_supplicant.service"},
        Broken{"no newer name", unit_has("wpa_supplicant-nl80211@wlan0.service", "ActiveState", "active"),
               "bad supplicant.newer-name: nobody owns fi.w1.wpa_supplicant1, though its unit runs", 2, "-u"},
        Broken{"no older name",
               [](HealthyDevice& device) {
                   device.system.unit("wpa_supplicant-nl80211@wlan0.service")["ActiveState"] = "active";
                   device.system.owns("fi.w1.wpa_supplicant1");
                   device.system.answers["GetInterface wlan0"] =
                       PlayedBus::answered("/fi/w1/wpa_supplicant1/Interfaces/0");
               },
               "bad supplicant.older-name: nobody owns fi.epitest.hostap.WPASupplicant", 2,
               "systemctl restart vantora-supplicant-names.service"},
        Broken{"no wlan0 in it",
               [](HealthyDevice& device) {
                   device.system.unit("wpa_supplicant-nl80211@wlan0.service")["ActiveState"] = "active";
                   device.system.owns("fi.w1.wpa_supplicant1");
                   device.system.owns("fi.epitest.hostap.WPASupplicant");
                   device.system.answers["GetInterface wlan0"] =
                       PlayedBus::refused("fi.w1.wpa_supplicant1.InterfaceUnknown", "not known");
               },
               "bad supplicant.wlan0: wpa_supplicant does not have wlan0: not known", 2, "systemctl restart"},
        Broken{"it hangs",
               [](HealthyDevice& device) {
                   device.system.unit("wpa_supplicant-nl80211@wlan0.service")["ActiveState"] = "active";
                   device.system.owns("fi.w1.wpa_supplicant1");
                   device.system.owns("fi.epitest.hostap.WPASupplicant");
                   device.system.answers["GetInterface wlan0"] = PlayedBus::silent();
               },
               "bad supplicant.wlan0: wpa_supplicant does not answer", 2, "systemctl restart"}));

INSTANTIATE_TEST_SUITE_P(
    Ours, DoctorFindsBroken,
    testing::Values(
        Broken{"no activation", without_file("usr/share/dbus-1/services/com.vantora.Network1.service"),
               "warning files.com.vantora.Network1: there is no activation file of com.vantora.Network1", 1,
               "--reinstall vantora-network"},
        Broken{
            "another activation",
            file_has("usr/share/dbus-1/services/com.vantora.common.Settings1.service",
                     "Name=com.vantora.common.Settings1\nExec=/bin/false\n"),
            "warning files.com.vantora.common.Settings1: the activation file of com.vantora.common.Settings1 does not "
            "start vantora-settingsd.service",
            1, "--reinstall vantora-settingsd"},
        Broken{"no policy", without_file("usr/share/dbus-1/system.d/vantora-supplicant-names.conf"),
               "bad files.policy: the bus policy of vantora-supplicant-names is missing", 2,
               "systemctl reload dbus"},
        Broken{"no settings daemon",
               [](HealthyDevice& device) { device.user.leaves("com.vantora.common.Settings1"); },
               "warning settings.daemon: no settings daemon runs", 1, "systemctl start vantora-settingsd"},
        Broken{"a mode that is none",
               user_bus_answers("Get /com/vantora/common/Settings1/network com.vantora.common.Settings1 mode",
                                PlayedBus::answered("Hots")),
               "warning settings.network.mode: the setting network.mode is Hots, not Host or Client", 1,
               "busctl --user set-property"},
        Broken{
            "a name that is too long",
            user_bus_answers(
                "Get /com/vantora/common/Settings1/device com.vantora.common.Settings1 deviceName",
                PlayedBus::answered("123456789012345678901234567890123")),
            "warning settings.device.deviceName: the setting device.deviceName is 123456789012345678901234567890123, not "
            "a text of 1 to 32 bytes",
            1, "busctl"},
        Broken{"a band of another type",
               user_bus_answers(
                   "Get /com/vantora/common/Settings1/network com.vantora.common.Settings1 frequency",
                   PlayedBus::answered(5)),
               "warning settings.network.frequency: the setting network.frequency is 5, not 2.4 or 5", 1,
               "busctl"},
        Broken{
            "a setting without an answer",
            user_bus_answers("Get /com/vantora/common/Settings1/network com.vantora.common.Settings1 enabled",
                             PlayedBus::silent()),
            "warning settings.network.enabled: the setting network.enabled cannot be read: Connection timed out",
            1, "journalctl"},
        Broken{"a damaged file", file_has("var/lib/vantora-settingsd/settings.json.damaged-1", ""),
               "warning settings.damaged: a damaged settings file was kept: "
               "/var/lib/vantora-settingsd/settings.json.damaged-1",
               1, "remove that file"},
        Broken{
            "the daemon hangs",
            user_bus_answers("Get /com/vantora/Network1 com.vantora.Network1.WiFi Mode", PlayedBus::silent()),
            "bad daemon.answers: the daemon does not answer: Connection timed out", 2, "journalctl"},
        Broken{"the daemon is masked", unit_has("vantora-network.service", "LoadState", "masked"),
               "bad daemon.unit: vantora-network.service is masked", 2,
               "systemctl unmask vantora-network.service"},
        Broken{"the daemon is not installed", unit_has("vantora-network.service", "LoadState", "not-found"),
               "bad daemon.unit: vantora-network.service is not installed", 2, "apt install vantora-network"},
        Broken{"the daemon is disabled", unit_has("vantora-network.service", "UnitFileState", "disabled"),
               "warning daemon.unit: vantora-network.service is disabled", 1,
               "systemctl enable vantora-network.service"},
        Broken{"the daemon has failed", unit_has("vantora-network.service", "ActiveState", "failed"),
               "bad daemon.running: the daemon does not run: its unit is failed", 2, "journalctl -b -u"},
        Broken{"the daemon was never started",
               [](HealthyDevice& device) {
                   Json& unit = device.system.unit("vantora-network.service");
                   unit["ActiveState"] = "inactive";
                   unit["ActiveEnterTimestampMonotonic"] = 0U;
               },
               "warning daemon.running: the daemon has not been started since the device was", 1,
               "systemctl start vantora-network.service"},
        Broken{
            "the daemon is restarted again and again",
            [](HealthyDevice& device) {
                device.system.unit("vantora-network.service")["ActiveEnterTimestampMonotonic"] =
                    7'140'000'000U;
                device.system
                    .answers["Get /unit/vantora-network.service org.freedesktop.systemd1.Service NRestarts"] =
                    PlayedBus::answered(4U);
            },
            "warning daemon.running: the daemon has been running for 1 minute, and was restarted 4 times before",
            1, "journalctl"},
        Broken{"it waits for the next boot",
               [](HealthyDevice& device) {
                   device.root.write("run/vantora-network.wait-for-boot", "");
                   device.system.unit("vantora-network.service")["ActiveState"] = "inactive";
                   // What is in nobody's way before that start.
                   device.system.unit("hostapd.service")["LoadState"] = "masked";
                   device.system.owns("net.connman");
                   device.system.owns("fi.w1.wpa_supplicant1");
               },
               "warning daemon.running: the daemon was installed since the device was started", 1,
               "systemctl reboot"}));

TEST(DoctorChecks, SayOnceThatThereIsNoSystemBus)
{
    HealthyDevice device;
    device.system.failure = "No such file or directory";
    EXPECT_THAT(
        device.complaints(),
        AllOf(
            Contains("bad bus.system: the system bus does not answer: No such file or directory"),
            Contains("bad units.systemd: systemd cannot be asked for its units: No such file or directory")));
    EXPECT_EQ(device.findings().exit_status(), 2);
}

TEST(DoctorChecks, KnowThatOnlyRootMayLookAtRootsBus)
{
    HealthyDevice device;
    device.user.failure = "Permission denied";
    EXPECT_THAT(device.complaints(),
                Contains(HasSubstr("bad bus.user: root's user bus is there and does not let")));
    device.asRoot = false;
    const auto complaints = device.complaints();
    EXPECT_THAT(
        complaints,
        ElementsAre("unseen bus.user: root's user bus lets in nobody but root",
                    "unseen settings.daemon: the settings cannot be asked for without root's user bus",
                    "unseen daemon.answers: the daemon cannot be asked without root's user bus"));
    const doctor::Findings findings = device.findings();
    EXPECT_EQ(findings.exit_status(), 1);
    for (const doctor::Finding& finding : findings.all()) {
        EXPECT_TRUE(finding.level != doctor::Level::Unseen || finding.mend == "sudo vantora-doctor")
            << finding.check;
    }
}

TEST(DoctorChecks, MissTheUserBusWithItsRemedy)
{
    HealthyDevice device;
    device.user.failure = "No such file or directory";
    device.remove("run/user/0/bus");
    device.system.unit("user@0.service");
    EXPECT_THAT(device.complaints(),
                Contains("bad bus.user: there is no user bus of root at /run/user/0/bus"));
}

TEST(DoctorChecks, NameTheLineOfTheTemplateAndNeverASecretInIt)
{
    HealthyDevice device;
    refuse_template(device, "", "Line 10: invalid WPA passphrase length 5 (expected 8..63) 'korrin-secret'");
    const auto complaints = device.complaints();
    ASSERT_THAT(complaints, testing::SizeIs(1));
    // What stands on line 10 of the file that hostapd was given, sorted by key, is on the same line of the
    // template.
    EXPECT_THAT(complaints.front(), HasSubstr("invalid WPA passphrase length 5"));
    EXPECT_THAT(complaints.front(), testing::Not(HasSubstr("korrin-secret")));
}

TEST(DoctorChecks, AreContentWithAWpaSupplicantThatMayOwnBothNames)
{
    HealthyDevice device;
    device.system.unit("vantora-supplicant-names.service")["LoadState"] = "not-found";
    device.root.write("etc/dbus-1/system.d/both.conf", "<allow own=\"fi.epitest.hostap.WPASupplicant\"/>");
    EXPECT_THAT(device.complaints(), IsEmpty());
}

TEST(DoctorChecks, GiveHostapdWhatTheDaemonWould)
{
    HealthyDevice device;
    device.findings();
    ASSERT_THAT(device.commands.inputs, testing::SizeIs(1));
    EXPECT_EQ(
        device.commands.inputs.front(),
        "acs_blacklist=52 56 60 64 100 104 108 112 116 120 124 128 132 136 140 144\nchannel=0\ncountry_code=NL\n"
        "ctrl_interface=/var/run/hostapd\ndriver=nl80211\nhw_mode=g\ninterface=wlan0\nrsn_pairwise=CCMP\n"
        "ssid=vantora-doctor\nwpa=2\nwpa_key_mgmt=WPA-PSK\nwpa_passphrase=korrin-secret\n");
}

TEST(DoctorChecks, AreContentWithAUnitThatTranslatesTheDialect)
{
    HealthyDevice device;
    device.speak_debians_dialect();
    EXPECT_THAT(device.complaints(), IsEmpty());
    ASSERT_THAT(device.commands.inputs, testing::SizeIs(2));
    EXPECT_THAT(device.commands.inputs.back(), testing::Not(HasSubstr("acs_blacklist")));
}

TEST(DoctorMends, WhatNeedsNoQuestionAndNothingElse)
{
    HealthyDevice device;
    device.system.unit("udhcpd.service")["LoadState"] = "masked";
    device.system.unit("hostapd.service")["UnitFileState"] = "enabled";
    device.system.unit("vantora-network.service")["ActiveState"] = "inactive";
    device.system.answers["UnmaskUnitFiles [\"udhcpd.service\"] false"] = PlayedBus::answered(Json::array());
    device.system.answers["Reload"] = {doctor::Reply::Kind::Answered, Json::array(), "", ""};
    device.system.answers["StartUnit vantora-network.service replace"] =
        PlayedBus::refused("org.x.No", "not today");
    const doctor::Findings findings = device.findings();
    device.system.calls.clear();
    const auto mended = doctor::mend(device.view(), findings);
    ASSERT_THAT(mended, testing::SizeIs(2));
    EXPECT_TRUE(mended[0].done);
    EXPECT_EQ(mended[0].text, "unmasked udhcpd.service");
    EXPECT_FALSE(mended[1].done);
    EXPECT_EQ(mended[1].text, "starting vantora-network.service failed: not today");
    EXPECT_THAT(device.system.calls, ElementsAre("UnmaskUnitFiles [\"udhcpd.service\"] false", "Reload",
                                                 "StartUnit vantora-network.service replace"));
}

TEST(DoctorMends, AnAbandonedSocketAndNoneThatIsInUse)
{
    HealthyDevice device;
    std::filesystem::create_directories(device.root.path() / "run/hostapd");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    device.root.file("run/hostapd/wlan0").copy(address.sun_path, sizeof address.sun_path - 1);
    UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_THAT(device.complaints(), IsEmpty());

    socket.reset();
    EXPECT_THAT(
        device.complaints(),
        ElementsAre(
            "warning hostapd.socket: an ended hostapd has left its socket /run/hostapd/wlan0 behind"));
    const auto mended = doctor::mend(device.view(), device.findings());
    ASSERT_THAT(mended, testing::SizeIs(1));
    EXPECT_EQ(mended.front().text, "removed /run/hostapd/wlan0");
    EXPECT_FALSE(device.root.has("run/hostapd/wlan0"));
}

} // namespace
