#include "dbus-helper/dbus_listener.hpp"

#include "connector_state.hpp"

namespace DbusHelper {

DbusConnector::DbusConnector(sd_event* event, BusType busType)
    : state_(std::make_unique<State>(event, busType))
{
}

DbusConnector::~DbusConnector() = default;

int DbusConnector::Connect()
{
    return state_->is_open() ? 0 : state_->open(Install::Waiting);
}

void DbusConnector::Disconnect()
{
    state_->close();
}

DbusListener::DbusListener(sd_event* event) : DbusListener(event, BusType::User)
{
}

DbusListener::DbusListener(sd_event* event, BusType busType) : DbusConnector(event, busType)
{
}

DbusListener::~DbusListener() = default;

int DbusListener::ListenSignal(const std::string& sender, const std::string& path,
                               const std::string& interface, const std::string& member, Callback callback,
                               void* userdata)
{
    return state_->listen({sender, path, interface, member, callback, userdata});
}

} // namespace DbusHelper
