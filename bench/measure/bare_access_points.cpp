#include <vector>

#include "measure/bare_commands.hpp"
#include "measure/subject.hpp"
#include "names.hpp"
#include "utils/sd_bus_owners.hpp"

namespace {

std::vector<std::string> read_paths()
{
    BusPtr bus;
    BusError error;
    sd_bus_message* received = nullptr;
    check(open_system_bus(bus), "open the system bus");
    const int result = sd_bus_get_property(bus.get(), kStationName, kStationPath, kStationInterface, "BSSs",
                                           error.get(), &received, "ao");
    const MessagePtr reply(received);
    check(result, error.message());

    std::vector<std::string> paths;
    const char* path = nullptr;
    check(sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_ARRAY, "o"), "read the list of BSSs");
    while (sd_bus_message_read_basic(reply.get(), SD_BUS_TYPE_OBJECT_PATH, &path) > 0) {
        paths.emplace_back(path);
    }
    return paths;
}

class BareAccessPoints : public Subject
{
public:
    Clock::duration run() override
    {
        const Clock::time_point begin = Clock::now();
        run_bare_commands("pm");
        const std::vector<std::string> paths = read_paths();
        {
            BusPtr bus;
            check(open_system_bus(bus), "open the system bus");
            for (const std::string& path : paths) {
                BusError error;
                sd_bus_message* received = nullptr;
                const int result =
                    sd_bus_call_method(bus.get(), kStationName, path.c_str(), kPropertiesInterface, "GetAll",
                                       error.get(), &received, "s", kBssInterface);
                const MessagePtr reply(received);
                check(result, error.message());
            }
        }
        return Clock::now() - begin;
    }
};

} // namespace

std::unique_ptr<Subject> make_bare_access_points()
{
    return std::make_unique<BareAccessPoints>();
}
