#include "measure/subject.hpp"

#include "names.hpp"

namespace {

class PropertyCall : public Subject
{
public:
    /** @param property null for all of them */
    PropertyCall(std::string service, std::string property)
        : service_(std::move(service)), property_(std::move(property))
    {
    }

    Clock::duration run() override
    {
        const Clock::time_point begin = Clock::now();
        BusError error;
        sd_bus_message* received = nullptr;
        const int result =
            property_.empty()
                ? sd_bus_call_method(bus_.get(), service_.c_str(), kObjectPath, kPropertiesInterface,
                                     "GetAll", error.get(), &received, "s", kInterface)
                : sd_bus_call_method(bus_.get(), service_.c_str(), kObjectPath, kPropertiesInterface, "Get",
                                     error.get(), &received, "ss", kInterface, property_.c_str());
        const Clock::time_point end = Clock::now();
        const MessagePtr reply(received);
        check(result, error.message());
        return end - begin;
    }

private:
    std::string service_;
    std::string property_;
    BareBusPtr bus_ = check(open_bare_bus(sd_bus_open_user));
};

} // namespace

std::unique_ptr<Subject> make_property_read(const std::string& service, const std::string& property)
{
    return std::make_unique<PropertyCall>(service, property);
}

std::unique_ptr<Subject> make_read_of_all(const std::string& service)
{
    return std::make_unique<PropertyCall>(service, "");
}
