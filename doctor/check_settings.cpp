#include "checks.hpp"

#include <array>
#include <string>

#include "service_manager.hpp"

namespace doctor {

namespace {

constexpr const char* kService = "com.vantora.common.Settings1";
constexpr std::size_t kLongestName = 32;

/** One setting that the daemon reads at its start. */
struct Setting
{
    const char* section;
    const char* key;
    std::string (*wrong)(const Json& value); /**< what a value must be, where it is not; else empty */
};

std::string not_truth(const Json& value)
{
    return value.is_boolean() ? "" : "true or false";
}

std::string not_mode(const Json& value)
{
    return value == "Host" || value == "Client" ? "" : "Host or Client";
}

std::string not_band(const Json& value)
{
    return value == "2.4" || value == "5" ? "" : "2.4 or 5";
}

std::string not_name(const Json& value)
{
    const std::size_t size = value.is_string() ? value.get_ref<const std::string&>().size() : 0;
    return size >= 1 && size <= kLongestName ? "" : "a text of 1 to 32 bytes";
}

constexpr auto kSettings = std::to_array<Setting>({{"network", "enabled", not_truth},
                                                   {"network", "mode", not_mode},
                                                   {"network", "frequency", not_band},
                                                   {"device", "deviceName", not_name},
                                                   {"development", "killWifiOnBoot", not_truth}});

std::string shown(const Json& value)
{
    return value.is_string() ? value.get<std::string>()
                             : value.dump(-1, ' ', true, Json::error_handler_t::replace);
}

void check_setting(const View& view, const Setting& setting, Findings& findings)
{
    const std::string name = std::string(setting.section) + "." + setting.key;
    const std::string path = std::string("/com/vantora/common/Settings1/") + setting.section;
    const Reply reply = view.user.property({kService, path, kService}, setting.key);
    if (!reply.answered()) {
        findings.warning("settings." + name, "the setting " + name + " cannot be read: " + reply.text,
                         "the device then comes up as an access point with its own defaults",
                         "journalctl -b -u vantora-settingsd");
        return;
    }
    const std::string wrong = setting.wrong(reply.value());
    if (!wrong.empty()) {
        findings.warning("settings." + name,
                         "the setting " + name + " is " + shown(reply.value()) + ", not " + wrong,
                         "the daemon takes something else in its place",
                         "busctl --user set-property " + std::string(kService) + " " + path + " " + kService +
                             " " + setting.key + " ...");
        return;
    }
    findings.good("settings." + name, name + " is " + shown(reply.value()));
}

void check_damaged(const View& view, Findings& findings)
{
    for (const std::string& name : view.files.names("/var/lib/vantora-settingsd")) {
        if (name.find(".damaged-") != std::string::npos) {
            findings.warning("settings.damaged",
                             "a damaged settings file was kept: /var/lib/vantora-settingsd/" + name,
                             "what could not be read of it fell back to its default",
                             "set again what is missing, then remove that file");
        }
    }
}

} // namespace

void check_settings(const View& view, Findings& findings)
{
    const Reply owner = view.user.owner(kService);
    if (!owner.answered()) {
        findings.unseen("settings.daemon", "the settings cannot be asked for without root's user bus",
                        view.root ? "see root's user bus" : kAsRoot);
        return;
    }
    if (owner.word().empty()) {
        const Unit unit = Unit::look_up(view.system, "vantora-settingsd.service");
        findings.warning("settings.daemon", "no settings daemon runs",
                         "the device comes up as an access point with its own defaults, and stores nothing",
                         unit.is_loaded() ? "systemctl start vantora-settingsd"
                                          : "apt install vantora-settingsd",
                         unit.is_loaded() ? Remedy{RemedyKind::StartUnit, unit.name()} : Remedy{});
        return;
    }
    findings.good("settings.daemon", "the settings daemon runs");
    for (const Setting& setting : kSettings) {
        check_setting(view, setting, findings);
    }
    check_damaged(view, findings);
}

} // namespace doctor
