#include "service.hpp"

#include <syslog.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <system_error>
#include <utility>

#include "wire.hpp"

namespace settingsd {

namespace {

std::string path_of(const std::string& section)
{
    return std::string(kBasePath) + "/" + section;
}

} // namespace

SettingsService::SettingsService(sd_bus* bus, SettingsStore& store) : bus_(bus), store_(store)
{
}

int SettingsService::publish()
{
    int r = publish_base();
    std::string last;
    for (const Setting& setting : store_.schema()) {
        if (r >= 0 && last != setting.section) {
            last = setting.section;
            r = publish_section(last);
        }
    }
    return r;
}

int SettingsService::load()
{
    std::vector<Value> before;
    for (const Setting& setting : store_.schema()) {
        before.push_back(store_.get(setting));
    }
    std::vector<std::string> findings;
    const int r = store_.load(findings);
    if (findings != reported_) {
        for (const std::string& finding : findings) {
            syslog(LOG_WARNING, "%s: %s", store_.path().c_str(), finding.c_str());
        }
        if (findings.empty()) {
            syslog(LOG_WARNING, "%s: is in use again", store_.path().c_str());
        }
        reported_ = std::move(findings);
    }
    std::vector<const Setting*> changed;
    for (std::size_t i = 0; i < before.size(); ++i) {
        if (store_.get(store_.schema()[i]) != before[i]) {
            changed.push_back(&store_.schema()[i]);
        }
    }
    announce(changed);
    try_again_later();
    return r;
}

/** Arms the timer where a failure has left something to do. */
void SettingsService::try_again_later()
{
    constexpr std::uint64_t kPauseUsec = 1'000'000;
    if (anotherTry_ || (store_.is_loaded() && store_.is_settled())) {
        return;
    }
    std::uint64_t now = 0;
    sd_event* event = sd_bus_get_event(bus_);
    sd_event_now(event, CLOCK_MONOTONIC, &now);
    sd_event_source* source = nullptr;
    const int r =
        sd_event_add_time(event, &source, CLOCK_MONOTONIC, now + kPauseUsec, 0, on_time_to_try_again, this);
    anotherTry_.reset(source);
    if (r < 0) {
        syslog(LOG_ERR, "Cannot arm a timer: %s", std::system_category().message(-r).c_str());
    }
}

int SettingsService::on_time_to_try_again(sd_event_source*, std::uint64_t, void* userdata)
{
    auto& service = *static_cast<SettingsService*>(userdata);
    service.anotherTry_.reset();
    if (!service.store_.is_loaded()) {
        service.load();
        return 0;
    }
    service.store_.settle();
    service.try_again_later();
    return 0;
}

int SettingsService::publish_base()
{
    static const auto kVtable = std::to_array<sd_bus_vtable>({
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD_WITH_ARGS("ResetToDefaults", SD_BUS_ARGS("b", all), SD_BUS_NO_RESULT,
                                on_reset_to_defaults, 0),
        SD_BUS_METHOD_WITH_ARGS("ResetSection", SD_BUS_ARGS("s", section), SD_BUS_NO_RESULT, on_reset_section,
                                0),
        SD_BUS_METHOD_WITH_ARGS("ResetSetting", SD_BUS_ARGS("s", section, "s", setting), SD_BUS_NO_RESULT,
                                on_reset_setting, 0),
        SD_BUS_VTABLE_END,
    });
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_add_object_vtable(bus_, &slot, kBasePath, kServiceName, kVtable.data(), this);
    base_.reset(slot);
    if (r < 0) {
        return r;
    }
    slot = nullptr;
    r = sd_bus_add_object_manager(bus_, &slot, kBasePath);
    objectManager_.reset(slot);
    return r;
}

int SettingsService::publish_section(const std::string& name)
{
    Section& section = sections_.emplace_back();
    section.service = this;
    section.name = name;
    section.vtable.push_back(SD_BUS_VTABLE_START(0));
    for (const Setting& setting : store_.schema()) {
        if (name == setting.section) {
            section.vtable.push_back(SD_BUS_WRITABLE_PROPERTY(setting.key, type_of(setting.defaultValue),
                                                              on_get, on_set, 0,
                                                              SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE));
        }
    }
    section.vtable.push_back(SD_BUS_VTABLE_END);

    sd_bus_slot* slot = nullptr;
    const int r = sd_bus_add_object_vtable(bus_, &slot, path_of(name).c_str(), kServiceName,
                                           section.vtable.data(), &section);
    section.slot.reset(slot);
    return r;
}

int SettingsService::reset(sd_bus_message* call, const std::vector<const Setting*>& settings,
                           sd_bus_error* error)
{
    std::vector<const Setting*> changed;
    const int r = store_.reset(settings, changed);
    if (r < 0) {
        return refuse_to_store(error, "the defaults", r);
    }
    announce(changed);
    const int answered = sd_bus_reply_method_return(call, nullptr);
    if (answered < 0) {
        // What was done must not be answered with an error, which is what the library makes of a negative
        // number.
        syslog(LOG_ERR, "Cannot answer: %s", std::system_category().message(-answered).c_str());
        sd_event_exit(sd_bus_get_event(bus_), EXIT_FAILURE);
    }
    return 1;
}

int SettingsService::refuse_to_store(sd_bus_error* error, const std::string& what, int r)
{
    const std::string reason = std::system_category().message(-r);
    syslog(LOG_ERR, "Cannot store %s: %s", what.c_str(), reason.c_str());
    try_again_later();
    return sd_bus_error_setf(error, SD_BUS_ERROR_IO_ERROR, "Cannot store %s: %s", what.c_str(),
                             reason.c_str());
}

void SettingsService::announce(const std::vector<const Setting*>& changed)
{
    for (const Section& section : sections_) {
        std::vector<char*> names;
        for (const Setting* setting : changed) {
            if (section.name == setting->section) {
                names.push_back(
                    const_cast<char*>(setting->key)); // the interface of sd-bus; it only reads them
            }
        }
        if (!names.empty()) {
            names.push_back(nullptr);
            const int r = sd_bus_emit_properties_changed_strv(bus_, path_of(section.name).c_str(),
                                                              kServiceName, names.data());
            if (r < 0) {
                syslog(LOG_ERR, "Cannot announce a change in section %s: %s", section.name.c_str(),
                       std::system_category().message(-r).c_str());
            }
        }
    }
}

int SettingsService::on_get(sd_bus*, const char*, const char*, const char* property, sd_bus_message* reply,
                            void* userdata, sd_bus_error*)
{
    const auto& section = *static_cast<const Section*>(userdata);
    const SettingsStore& store = section.service->store_;
    const Setting* setting = find_setting(store.schema(), section.name, property);
    return setting != nullptr ? append_value(reply, store.get(*setting)) : -ENOENT;
}

int SettingsService::on_set(sd_bus*, const char*, const char*, const char* property, sd_bus_message* message,
                            void* userdata, sd_bus_error* error)
{
    const auto& section = *static_cast<const Section*>(userdata);
    SettingsService& service = *section.service;
    const Setting* setting = find_setting(service.store_.schema(), section.name, property);
    if (setting == nullptr) {
        return -ENOENT;
    }
    Value value;
    int r = read_value(message, setting->defaultValue, value);
    if (r < 0) {
        return r;
    }
    const std::string refusal = refusal_of(*setting, value);
    if (!refusal.empty()) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS, "%s.%s %s", setting->section, setting->key,
                                 refusal.c_str());
    }
    bool changed = false;
    r = service.store_.set(*setting, value, changed);
    if (r < 0) {
        return service.refuse_to_store(error, section.name + "." + setting->key, r);
    }
    if (changed) {
        service.announce({setting});
    }
    return 0;
}

int SettingsService::on_reset_to_defaults(sd_bus_message* call, void* userdata, sd_bus_error* error)
{
    auto& service = *static_cast<SettingsService*>(userdata);
    int all = 0;
    const int r = sd_bus_message_read_basic(call, SD_BUS_TYPE_BOOLEAN, &all);
    if (r < 0) {
        return r;
    }
    std::vector<const Setting*> settings;
    for (const Setting& setting : service.store_.schema()) {
        if (all != 0 || setting.belongs == Belongs::ToProduct) {
            settings.push_back(&setting);
        }
    }
    return service.reset(call, settings, error);
}

int SettingsService::on_reset_section(sd_bus_message* call, void* userdata, sd_bus_error* error)
{
    auto& service = *static_cast<SettingsService*>(userdata);
    const char* section = nullptr;
    const int r = sd_bus_message_read_basic(call, SD_BUS_TYPE_STRING, &section);
    if (r < 0) {
        return r;
    }
    std::vector<const Setting*> settings;
    for (const Setting& setting : service.store_.schema()) {
        if (std::string_view(section) == setting.section) {
            settings.push_back(&setting);
        }
    }
    if (settings.empty()) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS, "No such section: %s", section);
    }
    return service.reset(call, settings, error);
}

int SettingsService::on_reset_setting(sd_bus_message* call, void* userdata, sd_bus_error* error)
{
    auto& service = *static_cast<SettingsService*>(userdata);
    const char* section = nullptr;
    const char* key = nullptr;
    const int r = sd_bus_message_read(call, "ss", &section, &key);
    if (r < 0) {
        return r;
    }
    const Setting* setting = find_setting(service.store_.schema(), section, key);
    if (setting == nullptr) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS, "No such setting: %s.%s", section, key);
    }
    return service.reset(call, {setting}, error);
}

} // namespace settingsd
