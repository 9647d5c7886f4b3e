#pragma once

#include <ctime>
#include <optional>
#include <string>

#include <sys/types.h>

#include "listeners/wpa_ctrl_owner.hpp"

/** Tells a socket file from its successor at the same path. */
struct SocketFile
{
    dev_t device = 0;
    ino_t inode = 0;
    time_t made = 0;
    long madeNanoseconds = 0;

    bool operator==(const SocketFile&) const = default;
};

/** The file at a path; none when there is none. */
std::optional<SocketFile> socket_file(const std::string& path);

/** A connection, and the file that was at its path right before it was made. There may be the one without the
 * other: nobody behind the socket, or a socket that appeared only then. */
struct ControlSocket
{
    WpaCtrlPtr connection;
    std::optional<SocketFile> file;
};

/** Connects to the socket at a path at once, whether it is there or not. */
ControlSocket connect_control_socket(const std::string& path);

/** Path of the control socket for an interface in the folder of a daemon's control sockets. */
std::string control_socket_path(const char* directory, const std::string& interface);

/** Waits for a socket to be there: three looks a second apart, then one more; for the main thread. */
void await_control_socket(const std::string& path);

/**
 * Opens a control connection for an interface, after waiting for its socket (await_control_socket); the
 * connection is tried whatever that shows.
 *
 * @param directory folder of the daemon's control sockets
 * @param interface interface name, which is the socket's name
 * @return the connection, or null
 */
WpaCtrlPtr open_control_socket(const char* directory, const std::string& interface);
