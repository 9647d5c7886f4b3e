#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "doctor/checks.hpp"
#include "doctor/service_manager.hpp"
#include "temp_folder.hpp"

namespace testing_support {

/** Programs that print what they are told to. */
class PlayedCommands : public doctor::Commands
{
public:
    std::map<std::string, doctor::Ran> answers; /**< by the whole command line */
    std::set<std::string> installed;
    std::vector<std::string> inputs; /**< what was given to those that read something */
    /** What hostapd says of a configuration that it is given; nothing: what it is told to say. */
    std::function<std::string(const std::string& configuration)> judge;

    void says(const std::string& line, const std::string& output, int status = 0)
    {
        answers[line] = {true, false, status, output};
    }
    void hangs(const std::string& line) { answers[line] = {true, true, -1, ""}; }

    std::string find(const std::string& program) override
    {
        return installed.contains(program) ? "/usr/bin/" + program : "";
    }

    doctor::Ran run(const Words& words, const std::string& input) override
    {
        std::string line;
        for (const std::string& word : words) {
            line += (line.empty() ? "" : " ") + word;
        }
        if (!input.empty()) {
            inputs.push_back(input);
            if (judge) {
                return {true, false, 1, judge(input)};
            }
        }
        if (!installed.contains(words.front())) {
            return {};
        }
        const auto found = answers.find(line);
        return found != answers.end() ? found->second : doctor::Ran{true, false, 1, ""};
    }
};

/** A bus whose calls have the answers that they are told to have; who is not told of does not exist. */
class PlayedBus : public doctor::Bus
{
public:
    std::map<std::string, doctor::Reply> answers; /**< by member and everything that is asked with it */
    std::vector<std::string> calls;
    std::string failure; /**< why it cannot be reached; empty when it can */

    static doctor::Reply answered(const doctor::Json& value)
    {
        return {doctor::Reply::Kind::Answered, doctor::Json::array({value}), "", ""};
    }
    static doctor::Reply refused(const std::string& error, const std::string& text)
    {
        return {doctor::Reply::Kind::Refused, doctor::Json::array(), error, text};
    }
    static doctor::Reply silent()
    {
        return {doctor::Reply::Kind::Silent, doctor::Json::array(), "", "Connection timed out"};
    }

    void owns(const std::string& name) { answers["GetNameOwner " + name] = answered(":1.7"); }
    void leaves(const std::string& name) { answers.erase("GetNameOwner " + name); }

    /** The properties of a unit; what stands there already stays. */
    doctor::Json& unit(const std::string& name)
    {
        const std::string path = "/unit/" + name;
        answers["LoadUnit " + name] = answered(path);
        doctor::Reply& all = answers["GetAll " + path + " org.freedesktop.systemd1.Unit"];
        if (!all.answered()) {
            all = answered({{"LoadState", "loaded"},
                            {"ActiveState", "inactive"},
                            {"UnitFileState", "static"},
                            {"ActiveEnterTimestampMonotonic", 0U},
                            {"NeedDaemonReload", false}});
        }
        return all.values.front();
    }

    void runs(const std::string& unit, const std::vector<std::string>& words,
              const char* property = "ExecStart")
    {
        answers["Get /unit/" + unit + " org.freedesktop.systemd1.Service " + property] =
            answered(doctor::Json::array({doctor::Json::array({words.front(), words})}));
    }

    doctor::Reply call(const doctor::Target& target, const std::string& member, const std::string&,
                       const doctor::Json& arguments) override
    {
        if (!failure.empty()) {
            return {doctor::Reply::Kind::Unreachable, doctor::Json::array(), "", failure};
        }
        const bool plain = member.starts_with("Get") && target.interface == "org.freedesktop.DBus.Properties";
        std::string key = member + (plain ? " " + target.path : "");
        for (const doctor::Json& argument : arguments) {
            key += " " + (argument.is_string() ? argument.get<std::string>() : argument.dump());
        }
        calls.push_back(key);
        const auto found = answers.find(key);
        if (found != answers.end()) {
            return found->second;
        }
        if (member == "LoadUnit") {
            const doctor::Json name = arguments.front();
            unit(name)["LoadState"] = "not-found";
            return answers.at("LoadUnit " + name.get<std::string>());
        }
        return refused(member == "GetNameOwner" ? "org.freedesktop.DBus.Error.NameHasNoOwner"
                                                : "org.freedesktop.DBus.Error.UnknownMethod",
                       "no such thing");
    }
};

/** A device on which all is well. A test breaks one thing, and sees what is said of it. */
class HealthyDevice
{
public:
    static constexpr const char* kTemplate = "# Access point\n"
                                             "interface=wlan0\n"
                                             "driver=nl80211\n"
                                             "ctrl_interface=/var/run/hostapd\n"
                                             "country_code=NL\n"
                                             "channel=0\n"
                                             "wpa=2\n"
                                             "wpa_key_mgmt=WPA-PSK\n"
                                             "rsn_pairwise=CCMP\n"
                                             "wpa_passphrase=korrin-secret\n";
    static constexpr const char* kAccepted =
        "Could not open configuration file '/nonexistent/vantora-doctor' for reading.\n"
        "Failed to set up interface with /nonexistent/vantora-doctor\n";
    static constexpr const char* kJudge = "hostapd /dev/stdin /nonexistent/vantora-doctor";

    HealthyDevice()
    {
        furnish_files();
        furnish_commands();
        furnish_system_bus();
        furnish_user_bus();
    }

    TempFolder root;
    doctor::Files files{root.path().string()};
    PlayedCommands commands;
    PlayedBus system;
    PlayedBus user;
    std::vector<std::string> interfaces = {"lo", "eth0", "wlan0"};
    bool asRoot = true;

    doctor::View view()
    {
        return {files, commands, system, user, interfaces, asRoot, std::chrono::microseconds(7'200'000'000)};
    }

    /** Everything that is found not to be good, as "level check: text". */
    std::vector<std::string> complaints();

    doctor::Findings findings() { return doctor::look_at(view()); }

    void remove(const std::string& file) const { std::filesystem::remove(root.path() / file); }

    /** hostapd as Debian builds it: it does not know a key that the daemon always writes. */
    void speak_debians_dialect()
    {
        commands.judge = [](const std::string& configuration) -> std::string {
            return configuration.starts_with("acs_blacklist=")
                       ? "Line 1: unknown configuration item 'acs_blacklist'\n"
                         "1 errors found in configuration file '/dev/stdin'\n"
                       : kAccepted;
        };
    }

private:
    void furnish_files() const
    {
        root.write("etc/hostapd.conf", kTemplate);
        ::chmod(root.file("etc/hostapd.conf").c_str(), 0600);
        root.write("etc/wpa_supplicant/wpa_supplicant-nl80211-wlan0.conf",
                   "ctrl_interface=/var/run/wpa_supplicant\n");
        root.write("etc/korrin/udhcpd_eth0.service", "[Unit]\n[Install]\nWantedBy=multi-user.target\n");
        root.write("run/user/0/bus", "");
        for (const std::string name : {"com.vantora.Network1", "com.vantora.common.Settings1"}) {
            const std::string unit = name.ends_with("Network1") ? "vantora-network" : "vantora-settingsd";
            root.write("usr/share/dbus-1/services/" + name + ".service",
                       "[D-BUS Service]\nName=" + name + "\nExec=/bin/systemctl --no-block start " + unit +
                           ".service\n");
        }
        root.write("usr/share/dbus-1/system.d/vantora-supplicant-names.conf",
                   "<allow own=\"fi.epitest.hostap.WPASupplicant\"/>\n");
        std::filesystem::create_directories(root.path() / "dev");
        ::mkfifo(root.file("dev/rfkill").c_str(), 0600);
    }

    void furnish_commands()
    {
        commands.installed = {"rfkill",  "iw",      "ip",        "wpa_cli", "wpa_supplicant",
                              "hostapd", "busybox", "systemctl", "sh",      "grep",
                              "egrep",   "cut",     "tail",      "tr"};
        commands.says("iw --version", "iw version 5.19\n");
        commands.says("hostapd -v", "hostapd v2.10\n", 1);
        commands.says("busybox --list", "sh\nudhcpc\nudhcpd\n");
        commands.says("iw dev", "phy#0\n\tInterface wlan0\n\t\ttype AP\n");
        commands.says("iw dev wlan0 info", "Interface wlan0\n\ttype AP\n\twiphy 0\n");
        commands.says("iw list",
                      "Wiphy phy0\n\tSupported interface modes:\n\t\t * managed\n\t\t * AP\n\tBand 1:\n"
                      "\t\tFrequencies:\n\t\t\t* 2412 MHz [1] (20.0 dBm)\n\tBand 2:\n\t\tFrequencies:\n"
                      "\t\t\t* 5180 MHz [36] (20.0 dBm)\n");
        commands.says("iw reg get", "global\ncountry NL: DFS-ETSI\n");
        commands.says("rfkill list wlan", "0: phy0: Wireless LAN\n\tSoft blocked: no\n\tHard blocked: no\n");
        commands.says(kJudge, kAccepted, 1);
    }

    void furnish_system_bus()
    {
        system.owns("org.freedesktop.systemd1");
        system.unit("hostapd.service")["ActiveState"] = "active";
        system.runs("hostapd.service", {"/usr/local/libexec/translate", "/run/hostapd.conf"}, "ExecStartPre");
        system.runs("hostapd.service", {"/usr/sbin/hostapd", "/run/hostapd-translated.conf"});
        system.unit("udhcpd.service")["ActiveState"] = "active";
        system.unit("wpa_supplicant-nl80211@wlan0.service");
        system.runs("wpa_supplicant-nl80211@wlan0.service", {"/sbin/wpa_supplicant", "-u", "-iwlan0"});
        system.unit("udhcpc@wlan0.service");
        for (const char* const name :
             {"vantora-network.service", "vantora-settingsd.service", "vantora-supplicant-names.service"}) {
            doctor::Json& unit = system.unit(name);
            unit["ActiveState"] = "active";
            unit["UnitFileState"] = "enabled";
            unit["ActiveEnterTimestampMonotonic"] = 3'600'000'000U;
        }
    }

    void furnish_user_bus()
    {
        user.owns("com.vantora.Network1");
        user.owns("com.vantora.common.Settings1");
        const std::string path = "/com/vantora/common/Settings1/";
        const std::string service = " com.vantora.common.Settings1 ";
        user.answers["Get " + path + "network" + service + "enabled"] = PlayedBus::answered(true);
        user.answers["Get " + path + "network" + service + "mode"] = PlayedBus::answered("Host");
        user.answers["Get " + path + "network" + service + "frequency"] = PlayedBus::answered("2.4");
        user.answers["Get " + path + "device" + service + "deviceName"] = PlayedBus::answered("Korrin One");
        user.answers["Get " + path + "development" + service + "killWifiOnBoot"] = PlayedBus::answered(false);
        const std::string object = "Get /com/vantora/Network1 com.vantora.Network1.WiFi ";
        user.answers[object + "Mode"] = PlayedBus::answered("Host");
        user.answers[object + "IPAddress"] = PlayedBus::answered("192.168.8.1");
    }
};

inline std::vector<std::string> HealthyDevice::complaints()
{
    std::vector<std::string> found;
    const doctor::Findings all = findings();
    for (const doctor::Finding& finding : all.all()) {
        switch (finding.level) {
        case doctor::Level::Unseen:
            found.push_back("unseen " + finding.check + ": " + finding.text);
            break;
        case doctor::Level::Warning:
            found.push_back("warning " + finding.check + ": " + finding.text);
            break;
        case doctor::Level::Bad:
            found.push_back("bad " + finding.check + ": " + finding.text);
            break;
        default:
            break;
        }
    }
    return found;
}

} // namespace testing_support
