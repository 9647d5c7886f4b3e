#pragma once

namespace client {

// The daemon's object, and the bus daemon's.
constexpr const char* kName = "com.vantora.Network1";
constexpr const char* kPath = "/com/vantora/Network1";
constexpr const char* kInterface = "com.vantora.Network1.WiFi";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kBus = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";

} // namespace client
