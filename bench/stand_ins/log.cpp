// Takes the place of the system's log: reads what is sent to the socket named as its argument, and forgets
// it.

#include <array>
#include <cstdio>
#include <cstdlib>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/unique_fd.hpp"

int main(int argc, char** argv)
{
    const UniqueFd log(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    if (argc != 2 || !log) {
        return EXIT_FAILURE;
    }
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", argv[1]);
    unlink(argv[1]);
    if (bind(log.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        chmod(argv[1], 0666) != 0) {
        return EXIT_FAILURE;
    }
    std::puts("ready");
    std::fflush(stdout);

    std::array<char, 65536> line{};
    while (read(log.get(), line.data(), line.size()) >= 0) {
    }
    return EXIT_FAILURE;
}
