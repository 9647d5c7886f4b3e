#include "access_point_key.hpp"

#include <cstring>
#include <string_view>

#include "hostapd_template.hpp"
#include "text_lines.hpp"

namespace doctor {

namespace {

constexpr const char* kPassphrase = "/var/lib/vantora-device/passphrase";

/** `\`, `;`, `,`, `:` and `"` separate and quote in such a text; behind a backslash they are themselves. */
std::string code_escaped(std::string_view text)
{
    std::string escaped;
    for (const char letter : text) {
        if (std::string_view("\\;,:\"").find(letter) != std::string_view::npos) {
            escaped += '\\';
        }
        escaped += letter;
    }
    return escaped;
}

std::string find_ssid(const View& view)
{
    const HostapdTemplate running(view.files.read("/run/hostapd.conf").text);
    if (!running.value("ssid").empty()) {
        return running.value("ssid");
    }
    constexpr const char* kService = "com.vantora.common.Settings1";
    return view.user.property({kService, "/com/vantora/common/Settings1/device", kService}, "deviceName")
        .word();
}

} // namespace

AccessPointKey find_key(const View& view)
{
    AccessPointKey key;
    const HostapdTemplate made(view.files.read("/etc/hostapd.conf").text);
    key.hidden = !made.value("ignore_broadcast_ssid").empty() && made.value("ignore_broadcast_ssid") != "0";
    key.passphrase = made.value("wpa_passphrase");
    const std::string path = kPassphrase;
    if (key.passphrase.empty()) {
        const Files::Contents file = view.files.read(path);
        if (!file) {
            key.failure = path + ": " + std::strerror(file.error);
            return key;
        }
        const auto lines = lines_of(file.text);
        key.passphrase = lines.empty() ? "" : lines.front();
    }
    if (key.passphrase.empty()) {
        key.failure = path + " is empty";
        return key;
    }
    key.ssid = find_ssid(view);
    if (key.ssid.empty()) {
        key.failure = "the name of the access point is not known: start the daemon first";
    }
    return key;
}

std::string wifi_code_text(const AccessPointKey& key)
{
    return "WIFI:T:WPA;S:" + code_escaped(key.ssid) + ";P:" + code_escaped(key.passphrase) + ";" +
           (key.hidden ? "H:true;" : "") + ";";
}

} // namespace doctor
