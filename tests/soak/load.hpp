#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <systemd/sd-bus.h>

#include "requests.hpp"
#include "support/sd_bus_owners.hpp"

/** What came back, of all clients together. */
struct Answers
{
    /** For each kind of request, how often it was answered how: "ok", or "name: text" of the error. */
    std::map<std::string, std::map<std::string, size_t>> counts;

    /** How many requests were answered, as documented or not. */
    size_t answered = 0;

    /** Answers that are not documented, and requests without an answer. */
    size_t wrong = 0;

    /** PropertiesChanged and other signals of the daemon's object that one of the clients heard. */
    size_t signals = 0;
};

/** Many clients at once, each on a connection of its own, each with one request on its way at any time. */
class Load
{
public:
    /**
     * Connects the clients.
     *
     * @throws std::runtime_error when one cannot connect
     */
    Load(const std::string& address, size_t clients, unsigned seed);
    ~Load();
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    /**
     * Sends so many requests and returns when all are answered.
     *
     * @param answered called after each answer
     * @throws std::runtime_error when a connection breaks
     */
    void run(size_t requests, const std::function<void()>& answered);

    const Answers& answers() const { return answers_; }

private:
    struct Client;

    void send_next(Client& client);
    void take(Client& client, sd_bus_message* reply);
    static int on_reply(sd_bus_message* reply, void* client, sd_bus_error*);

    EventPtr event_;
    std::vector<std::unique_ptr<Client>> clients_;
    RequestDeck deck_;
    Answers answers_;
    std::function<void()> answered_;
    unsigned sent_ = 0;
    size_t toSend_ = 0;
    size_t waiting_ = 0;
};
