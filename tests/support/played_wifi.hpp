#pragma once

#include <algorithm>
#include <csignal>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <poll.h>
#include <unistd.h>

#include "client/daemon_names.hpp"
#include "client/values.hpp"
#include "private_bus.hpp"
#include "support/unique_fd.hpp"

namespace testing_support {

/**
 * The daemon's object as the client sees it, on a private bus and served by a thread of its own. What is to
 * happen next is decided where a request comes in, so that nothing has to be waited for.
 */
class PlayedWifi
{
public:
    using Json = client::Json;

    /** Is told of each request ("Get Mode", "Set Mode Host", "Connect cafe secret") in the daemon's thread,
     * and how often this one has come. What it does not answer is answered as usual when it returns. */
    using Script = std::function<void(PlayedWifi&, const std::string& request, int count)>;

    /** A station that is not connected, but for these properties. Networks are [name, privacy, signal,
     * passphrase]. */
    explicit PlayedWifi(const PrivateBus& bus, const Json& others = Json::object(), Script script = {})
        : script_(std::move(script)), bus_(bus.connect()), stranger_(bus.connect())
    {
        properties.update(others);
        int ends[2] = {-1, -1};
        if (::pipe2(ends, O_CLOEXEC) != 0 || sd_bus_request_name(bus_.get(), client::kName, 0) < 0 ||
            sd_bus_add_object(bus_.get(), nullptr, client::kPath, on_request, this) < 0) {
            throw std::runtime_error("the daemon cannot be played");
        }
        ended_.reset(ends[0]);
        ending_.reset(ends[1]);
        // Signals are for whoever plays the program.
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before);
        thread_ = std::thread([this] { serve(); });
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    PlayedWifi(const PlayedWifi&) = delete;
    PlayedWifi& operator=(const PlayedWifi&) = delete;
    ~PlayedWifi() { end(); }

    /** Ends the daemon. Returns what it was asked, in order. */
    const std::vector<std::string>& end()
    {
        if (thread_.joinable()) {
            ending_.reset();
            thread_.join();
        }
        return requests_;
    }

    // For the script alone.

    /** Answers the request now, as usual. */
    void answer()
    {
        sd_bus_message* made = nullptr;
        sd_bus_message_new_method_return(request_.get(), &made);
        const MessagePtr reply(made);
        if (requestText_.starts_with("Get ")) {
            append(reply.get(), properties.at(requestText_.substr(4)));
        }
        send(reply.get());
    }

    /** Answers it with an error. */
    void refuse(const std::string& text, const std::string& name = SD_BUS_ERROR_FAILED)
    {
        sd_bus_message* made = nullptr;
        sd_bus_message_new_method_errorf(request_.get(), &made, name.c_str(), "%s", text.c_str());
        send(MessagePtr(made).get());
    }

    /** Does not answer it at all. */
    void say_nothing() { request_.reset(); }

    /** Changes a property and announces it. */
    void announce(const std::string& name, const Json& value)
    {
        properties[name] = value;
        emit(client::kProperties, "PropertiesChanged", [&](sd_bus_message* signal) {
            sd_bus_message_append(signal, "s", client::kInterface);
            sd_bus_message_open_container(signal, 'a', "{sv}");
            sd_bus_message_open_container(signal, 'e', "sv");
            sd_bus_message_append(signal, "s", name.c_str());
            append(signal, value);
            sd_bus_message_close_container(signal);
            sd_bus_message_close_container(signal);
            sd_bus_message_append(signal, "as", 0);
        });
    }

    /** Has these in range, and announces them. */
    void announce_networks(const Json& networks)
    {
        properties["AccessPoints"] = networks;
        emit(client::kInterface, "AccessPointsChanged",
             [&](sd_bus_message* signal) { append_networks(signal, networks); });
    }

    using Fill = std::function<void(sd_bus_message*)>;

    /** Emits a signal of its object. */
    void emit(const char* interface, const char* member, const Fill& fill)
    {
        sd_bus_message* made = nullptr;
        sd_bus_message_new_signal(bus_.get(), &made, client::kPath, interface, member);
        const MessagePtr signal(made);
        fill(made);
        sd_bus_send(bus_.get(), made, nullptr);
    }

    /** A stranger sends whoever made the request a signal directly, past what that one asked the bus for. */
    void forge(const char* path, const char* interface, const char* member, const Fill& fill)
    {
        sd_bus_message* made = nullptr;
        sd_bus_message_new_signal(stranger_.get(), &made, path, interface, member);
        const MessagePtr signal(made);
        fill(made);
        sd_bus_message_set_destination(made, asker_.c_str());
        sd_bus_send(stranger_.get(), made, nullptr);
        settle(stranger_.get());
    }

    /** Leaves the bus, as far as anybody sees, or comes back. */
    void leave() { sd_bus_release_name(bus_.get(), client::kName); }
    void come_back() { sd_bus_request_name(bus_.get(), client::kName, 0); }

    Json properties = {{"WiFiState", 1U},
                       {"Mode", "Client"},
                       {"SSID", ""},
                       {"WiFiFrequency", ""},
                       {"WiFiAvailableFrequencies", {"5", "2.4"}},
                       {"WiFiAccessPointInitialised", false},
                       {"WiFiConnectedClients", 0U},
                       {"ClientSSID", ""},
                       {"WiFiClientState", "inactive"},
                       {"IPAddress", ""},
                       {"MacAddress", "02:00:00:00:10:01"},
                       {"WiFiSignal", "txpower 20.00 dB"},
                       {"AccessPoints", Json::array()}};

private:
    static void append_networks(sd_bus_message* message, const Json& networks)
    {
        sd_bus_message_open_container(message, 'a', "(siib)");
        for (const Json& network : networks) {
            sd_bus_message_append(message, "(siib)", network[0].get<std::string>().c_str(),
                                  network[1].get<int>(), network[2].get<int>(),
                                  network[3].get<bool>() ? 1 : 0);
        }
        sd_bus_message_close_container(message);
    }

    /** Appends a value as a variant. */
    static void append(sd_bus_message* message, const Json& value)
    {
        if (value.is_string()) {
            sd_bus_message_append(message, "v", "s", value.get<std::string>().c_str());
        } else if (value.is_boolean()) {
            sd_bus_message_append(message, "v", "b", value.get<bool>() ? 1 : 0);
        } else if (value.is_number()) {
            sd_bus_message_append(message, "v", "u", value.get<unsigned int>());
        } else if (!value.empty() && value.front().is_string()) {
            sd_bus_message_append(message, "v", "as", 2, value[0].get<std::string>().c_str(),
                                  value[1].get<std::string>().c_str());
        } else {
            sd_bus_message_open_container(message, 'v', "a(siib)");
            append_networks(message, value);
            sd_bus_message_close_container(message);
        }
    }

    static int on_request(sd_bus_message* message, void* userdata, sd_bus_error*)
    {
        auto& self = *static_cast<PlayedWifi*>(userdata);
        self.requestText_ = sd_bus_message_get_member(message);
        const bool property = std::string(sd_bus_message_get_interface(message)) == client::kProperties;
        const char* text = nullptr;
        for (int index = 0; sd_bus_message_read_basic(message, 's', &text) > 0; ++index) {
            if (!property || index > 0) {
                self.requestText_ += std::string(" ") + text;
            }
        }
        Json value;
        if (client::read_value(message, value) > 0) {
            self.requestText_ += " " + (value.is_string() ? value.get<std::string>() : value.dump());
        }
        self.asker_ = sd_bus_message_get_sender(message);
        self.request_.reset(sd_bus_message_ref(message));
        self.requests_.push_back(self.requestText_);
        if (self.script_) {
            self.script_(self, self.requestText_,
                         static_cast<int>(std::ranges::count(self.requests_, self.requestText_)));
        }
        if (self.request_) {
            self.answer();
        }
        return 1;
    }

    void send(sd_bus_message* reply)
    {
        sd_bus_send(bus_.get(), reply, nullptr);
        request_.reset();
    }

    void serve()
    {
        for (;;) {
            while (sd_bus_process(bus_.get(), nullptr) > 0) {
            }
            pollfd waiting[] = {{sd_bus_get_fd(bus_.get()), POLLIN, 0}, {ended_.get(), POLLIN, 0}};
            ::poll(waiting, 2, -1);
            if (waiting[1].revents != 0) {
                return;
            }
        }
    }

    Script script_;
    BusPtr bus_;
    BusPtr stranger_;
    UniqueFd ended_; // readable when the other end is closed
    UniqueFd ending_;
    MessagePtr request_; // to be answered
    std::string requestText_;
    std::string asker_; // the name of its connection
    std::vector<std::string> requests_;
    std::thread thread_;
};

} // namespace testing_support
