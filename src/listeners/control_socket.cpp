#include "listeners/control_socket.hpp"

#include <filesystem>
#include <utility>

#include <sys/stat.h>

#include "utils/pause.hpp"

namespace {

bool exists(const std::string& path)
{
    std::error_code error;
    return std::filesystem::exists(path, error);
}

} // namespace

std::optional<SocketFile> socket_file(const std::string& path)
{
    struct stat file = {};
    if (stat(path.c_str(), &file) != 0) {
        return std::nullopt;
    }
    return SocketFile{.device = file.st_dev,
                      .inode = file.st_ino,
                      .made = file.st_mtim.tv_sec,
                      .madeNanoseconds = file.st_mtim.tv_nsec};
}

ControlSocket connect_control_socket(const std::string& path)
{
    // Looked at first: where the daemon is replaced in between, the connection is taken for one to the old
    // one, which costs an attempt, and never the other way round, which would make the listener deaf.
    std::optional<SocketFile> file = socket_file(path);
    WpaCtrlPtr connection(wpa_ctrl_open2(path.c_str(), nullptr));
    if (connection && !file) {
        file = socket_file(path);
    }
    return {.connection = std::move(connection), .file = file};
}

std::string control_socket_path(const char* directory, const std::string& interface)
{
    return std::string(directory) + "/" + interface;
}

void await_control_socket(const std::string& path)
{
    constexpr int kLooks = 3;

    for (int look = 1; !exists(path) && look < kLooks; ++look) {
        pause_for(1, 0);
    }
    // One more look, whose answer changes nothing: only the daemon itself can tell whether it listens.
    exists(path);
}

WpaCtrlPtr open_control_socket(const char* directory, const std::string& interface)
{
    const std::string path = control_socket_path(directory, interface);
    await_control_socket(path);
    return connect_control_socket(path).connection;
}
