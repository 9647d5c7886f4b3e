#include "identity.hpp"

#include <charconv>
#include <system_error>

#include "device_conf.hpp"
#include "machine_identity.hpp"

namespace KorrinInfo::detail {

namespace {

DeviceConf device_conf(const std::string& root)
{
    return read_device_conf(root + "/etc/korrin/device.conf");
}

} // namespace

std::string display_name(const std::string& root)
{
    const DeviceConf conf = device_conf(root);
    const auto model = conf.find("model");
    // An empty one names nothing: the network would be called "-", and the serial number.
    return model != conf.end() && !model->second.empty() ? model->second : machine_model(root);
}

std::string serial_number(const std::string& root)
{
    const DeviceConf conf = device_conf(root);
    const auto serial = conf.find("serial");
    return serial != conf.end() ? serial->second : machine_serial(root);
}

int radio_type(const std::string& root, bool (*radioOffers5ghz)())
{
    const DeviceConf conf = device_conf(root);
    const auto entry = conf.find("radio_type");
    if (entry != conf.end()) {
        const std::string& text = entry->second;
        int type = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), type);
        if (error == std::errc() && end == text.data() + text.size()) {
            return type;
        }
    }
    return radioOffers5ghz() ? 1 : 0;
}

} // namespace KorrinInfo::detail
