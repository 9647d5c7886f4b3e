#include "view.hpp"

#include <memory>

#include <net/if.h>

#include "support/sd_bus_owners.hpp"

namespace doctor {

std::vector<std::string> interface_names()
{
    using List = std::unique_ptr<struct if_nameindex, ReleaseWith<if_freenameindex>>;
    std::vector<std::string> names;
    const List list(::if_nameindex());
    for (const auto* entry = list.get(); entry != nullptr && entry->if_index != 0; ++entry) {
        names.emplace_back(entry->if_name);
    }
    return names;
}

} // namespace doctor
