#pragma once

#include <array>
#include <memory>
#include <stdexcept>
#include <string>

#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>

#include "support/sd_bus_owners.hpp"

namespace testing_support {

/** The end of a call: the error's name and text, both empty for a success, and the reply. */
struct CallResult
{
    std::string error;
    std::string text;
    MessagePtr reply;
};

/**
 * A service and its client in one process, connected without a bus between them, served by one thread in
 * turns: what the client sees is what sd-bus really puts on the wire.
 */
class BusPair
{
public:
    BusPair()
    {
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) != 0) {
            throw std::runtime_error("socketpair failed");
        }
        service_ = open(ends[0], true);
        client_ = open(ends[1], false);
    }

    /** The service's end, for its vtables. */
    sd_bus* service() const { return service_.get(); }

    /** Calls a method of the service; arguments as sd_bus_message_append(3) takes them. */
    template <typename... Arguments>
    CallResult call(const char* path, const char* interface, const char* member, const char* types,
                    Arguments... arguments) const
    {
        sd_bus_message* created = nullptr;
        check(sd_bus_message_new_method_call(client_.get(), &created, nullptr, path, interface, member));
        const MessagePtr message(created);
        check(sd_bus_message_append(created, types, arguments...));

        sd_bus_message* answer = nullptr;
        check(sd_bus_call_async(client_.get(), nullptr, created, take_answer, &answer, 0));
        while (answer == nullptr) {
            const int client = check(sd_bus_process(client_.get(), nullptr));
            const int service = check(sd_bus_process(service_.get(), nullptr));
            if (client == 0 && service == 0) {
                check(sd_bus_wait(client_.get(), 1000));
            }
        }
        CallResult result;
        result.reply.reset(answer);
        if (const sd_bus_error* error = sd_bus_message_get_error(answer)) {
            result.error = error->name;
            result.text = error->message != nullptr ? error->message : "";
        }
        return result;
    }

private:
    /** Closed without a flush, which would wait for the other end, served by the same thread. */
    struct Close
    {
        void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
    };
    using ConnectionPtr = std::unique_ptr<sd_bus, Close>;

    static int take_answer(sd_bus_message* message, void* answer, sd_bus_error*)
    {
        *static_cast<sd_bus_message**>(answer) = sd_bus_message_ref(message);
        return 0;
    }

    static int check(int result)
    {
        if (result < 0) {
            throw std::runtime_error("sd-bus failed: " + std::to_string(result));
        }
        return result;
    }

    static ConnectionPtr open(int fd, bool service)
    {
        sd_bus* bus = nullptr;
        check(sd_bus_new(&bus));
        ConnectionPtr opened(bus);
        check(sd_bus_set_fd(bus, fd, fd));
        check(sd_bus_set_trusted(bus, 1)); // as on a user bus
        if (service) {
            constexpr sd_id128_t kServer = {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}};
            check(sd_bus_set_server(bus, 1, kServer));
        }
        check(sd_bus_start(bus));
        return opened;
    }

    ConnectionPtr service_;
    ConnectionPtr client_;
};

} // namespace testing_support
