// Takes the place of hostapd: its control socket for wlan0, with no station. It answers at once, and passes
// on as an event what it is asked to.

#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "names.hpp"
#include "support/unique_fd.hpp"

namespace {

class ControlSocket
{
public:
    ControlSocket() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}

    bool open()
    {
        sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", kHostapdSocket);
        mkdir(kHostapdFolder, 0755);
        unlink(kHostapdSocket);
        return bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }

    /** Serves one request. Returns false when the socket has failed. */
    bool serve()
    {
        std::array<char, 4096> buffer{};
        sockaddr_un from = {};
        socklen_t fromSize = sizeof(from);
        const ssize_t size = recvfrom(socket_.get(), buffer.data(), buffer.size(), 0,
                                      reinterpret_cast<sockaddr*>(&from), &fromSize);
        if (size < 0) {
            return false;
        }
        const std::string_view request(buffer.data(), static_cast<size_t>(size));
        if (request.starts_with(kEventRequest)) {
            announce("<3>" + std::string(request.substr(std::string_view(kEventRequest).size())));
            return true;
        }
        send(request.starts_with("STA-") ? "" : request == "PING" ? "PONG\n" : "OK\n", from);
        if (request == "ATTACH") {
            attached_[from.sun_path] = from;
        } else if (request == "DETACH") {
            attached_.erase(from.sun_path);
        }
        return true;
    }

private:
    bool send(std::string_view text, const sockaddr_un& to) const
    {
        return sendto(socket_.get(), text.data(), text.size(), MSG_DONTWAIT,
                      reinterpret_cast<const sockaddr*>(&to), sizeof(to)) >= 0;
    }

    void announce(const std::string& event)
    {
        std::erase_if(attached_, [&](const auto& client) { return !send(event, client.second); });
    }

    UniqueFd socket_;
    std::map<std::string, sockaddr_un> attached_;
};

} // namespace

int main()
{
    ControlSocket control;
    if (!control.open()) {
        return EXIT_FAILURE;
    }
    std::puts("ready");
    std::fflush(stdout);
    while (control.serve()) {
    }
    return EXIT_FAILURE;
}
