#include "bss_list.hpp"

#include "bus_names.hpp"

namespace {

bool asks_for_the_list(sd_bus_message* call)
{
    const char* interface = nullptr;
    const char* property = nullptr;
    return sd_bus_message_is_method_call(call, kProperties, "Get") > 0 &&
           sd_bus_message_has_signature(call, "ss") > 0 && sd_bus_message_rewind(call, 1) >= 0 &&
           sd_bus_message_read(call, "ss", &interface, &property) > 0 &&
           std::string_view(interface) == kInterfaceInterface && std::string_view(property) == "BSSs";
}

} // namespace

void BssList::learn(sd_bus_message* call, sd_bus_message* answer)
{
    if (!asks_for_the_list(call) || sd_bus_message_is_method_error(answer, nullptr) > 0 ||
        sd_bus_message_rewind(answer, 1) < 0 ||
        sd_bus_message_enter_container(answer, SD_BUS_TYPE_VARIANT, "ao") <= 0 ||
        sd_bus_message_enter_container(answer, SD_BUS_TYPE_ARRAY, "o") <= 0) {
        return;
    }
    positions_.clear();
    paths_.clear();
    const char* path = nullptr;
    while (sd_bus_message_read_basic(answer, SD_BUS_TYPE_OBJECT_PATH, static_cast<void*>(&path)) > 0) {
        paths_.emplace_back(path);
    }
    for (size_t position = 0; position < paths_.size(); ++position) {
        positions_.emplace(paths_[position], position);
    }
}

std::optional<size_t> BssList::position(const char* path) const
{
    const auto found = positions_.find(path);
    return found == positions_.end() ? std::nullopt : std::optional(found->second);
}
