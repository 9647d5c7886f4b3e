#include <array>
#include <vector>

#include "measure/bare_commands.hpp"
#include "measure/subject.hpp"
#include "names.hpp"

namespace {

/** The longest value of a basic type, or a pointer to a text. */
using Basic = std::array<uint64_t, 1>;

/** Reads all that is left of the container that is open, into nothing. */
void read_values(sd_bus_message* message)
{
    char type = 0;
    const char* contents = nullptr;
    while (check(sd_bus_message_peek_type(message, &type, &contents), "read an answer") > 0) {
        if (type == SD_BUS_TYPE_ARRAY && std::string_view(contents) == "y") {
            const void* bytes = nullptr;
            size_t size = 0;
            check(sd_bus_message_read_array(message, SD_BUS_TYPE_BYTE, &bytes, &size), "read bytes");
        } else if (contents != nullptr) {
            check(sd_bus_message_enter_container(message, type, contents), "enter a container");
            read_values(message);
            check(sd_bus_message_exit_container(message), "exit a container");
        } else {
            Basic value{};
            check(sd_bus_message_read_basic(message, type, value.data()), "read a value");
        }
    }
}

std::vector<std::string> read_paths()
{
    const BareBusPtr bus = check(open_bare_bus(sd_bus_open_system));
    BusError error;
    sd_bus_message* received = nullptr;
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
    explicit BareAccessPoints(bool reading) : reading_(reading) {}

    Clock::duration run() override
    {
        const Clock::time_point begin = Clock::now();
        run_bare_commands("pm");
        ask_for_each(read_paths());
        return Clock::now() - begin;
    }

private:
    void ask_for_each(const std::vector<std::string>& paths) const
    {
        const BareBusPtr bus = check(open_bare_bus(sd_bus_open_system));
        for (const std::string& path : paths) {
            BusError error;
            sd_bus_message* received = nullptr;
            const int result = sd_bus_call_method(bus.get(), kStationName, path.c_str(), kPropertiesInterface,
                                                  "GetAll", error.get(), &received, "s", kBssInterface);
            const MessagePtr reply(received);
            check(result, error.message());
            if (reading_) {
                read_values(reply.get());
            }
        }
    }

    bool reading_;
};

} // namespace

std::unique_ptr<Subject> make_bare_access_points(bool reading)
{
    return std::make_unique<BareAccessPoints>(reading);
}
