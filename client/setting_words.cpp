#include "setting_words.hpp"

#include "text.hpp"

namespace client {

namespace {

/** "The band is 5 GHz." or what is so instead. With the radio off the daemon tells neither the value nor
 * whether it was stored: what equals the present one is not, and the present one may differ from what was
 * stored last. So nothing is promised then.
 */
std::string sentence(std::string subject, const std::string& value, Applied applied)
{
    if (applied == Applied::Now) {
        subject.front() = 'T';
        return subject + " is " + value + ".";
    }
    if (applied == Applied::WhenOn) {
        return "Not yet: the radio is off. 'vantora-wifi on' switches it on, and 'vantora-wifi status' then tells whether " +
               subject + " is " + value + ".";
    }
    return "Stored: " + subject + " will be " + value + " when the device is an access point.";
}

} // namespace

std::string done_text(Command command, const std::string& value, Applied applied)
{
    switch (command) {
    case Command::On:
        return "The radio is on.";
    case Command::Off:
        return "The radio is off.";
    case Command::Band:
        return sentence("the access point's band", value + " GHz", applied);
    case Command::Ssid:
        return sentence("the access point's name", "\"" + escaped(value) + "\"", applied);
    default:
        return sentence("the device", value == "Host" ? "an access point (Host)" : "a station (Client)",
                        applied);
    }
}

std::string without_effect(Command command, const Json& read)
{
    switch (command) {
    case Command::On:
        return "the radio is still off: something else blocks it, such as a switch on the device, which no program "
               "can overrule ('rfkill list' tells)";
    case Command::Off:
        return "the radio is still on, although the daemon has switched it off";
    case Command::Band:
        return "the band is stored, but the access point does not have it yet";
    case Command::Ssid:
        return "the name is stored, but the access point does not have it yet; 'vantora-wifi status' tells whether "
               "it is on the air";
    default:
        break;
    }
    if (read == "unknown") {
        return "the mode is stored, but the device is neither access point nor station: its Wi-Fi interface (wlan0) "
               "may be missing, or its access point not start";
    }
    return "the mode is stored, but the device is still " +
           std::string(read == "Host" ? "an access point" : "a station") + "; the daemon's log says why";
}

std::string word_of_mode(const std::string& text)
{
    return text == "Host" ? "host" : text == "Client" ? "client" : text;
}

} // namespace client
