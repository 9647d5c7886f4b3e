#include "load.hpp"

#include <algorithm>
#include <cstdint>
#include <stdexcept>

namespace {

/** Longer than everything that may be queued before a request takes. */
constexpr uint64_t kPatienceUsec = uint64_t{120} * 1'000'000;

constexpr const char* kSignals = "type='signal',path='/com/vantora/Network1'";

void check(int result, const char* what)
{
    if (result < 0) {
        throw std::runtime_error(std::string(what) + ": " + std::to_string(result));
    }
}

std::string describe(sd_bus_message* reply)
{
    const sd_bus_error* error = sd_bus_message_get_error(reply);
    if (error == nullptr) {
        return "ok";
    }
    return std::string(error->name) + ": " + (error->message != nullptr ? error->message : "");
}

bool documented(const Request& request, const std::string& answer)
{
    if (answer == "ok") {
        return request.maySucceed;
    }
    return std::find(request.refusals.begin(), request.refusals.end(), answer) != request.refusals.end();
}

int count_signal(sd_bus_message*, void* count, sd_bus_error*)
{
    ++*static_cast<size_t*>(count);
    return 0;
}

} // namespace

struct Load::Client
{
    Load* load = nullptr;
    BusPtr bus;
    SlotPtr call;
    size_t kind = 0; // of the request that is on its way
};

Load::Load(const std::string& address, size_t clients, unsigned seed) : deck_(seed)
{
    sd_event* event = nullptr;
    check(sd_event_new(&event), "no event loop");
    event_.reset(event);

    for (size_t i = 0; i < clients; ++i) {
        auto client = std::make_unique<Client>();
        client->load = this;
        sd_bus* bus = nullptr;
        check(sd_bus_new(&bus), "no bus object");
        client->bus.reset(bus);
        check(sd_bus_set_address(bus, address.c_str()), "bad address");
        check(sd_bus_set_bus_client(bus, 1), "no client of a bus daemon");
        check(sd_bus_start(bus), "no connection");
        check(sd_bus_attach_event(bus, event, SD_EVENT_PRIORITY_NORMAL), "no event source");
        clients_.push_back(std::move(client));
    }
    check(sd_bus_add_match(clients_.front()->bus.get(), nullptr, kSignals, count_signal, &answers_.signals),
          "no match");
}

Load::~Load() = default;

void Load::run(size_t requests, const std::function<void()>& answered)
{
    answered_ = answered;
    toSend_ = requests;
    for (const auto& client : clients_) {
        send_next(*client);
    }
    while (waiting_ > 0) {
        check(sd_event_run(event_.get(), UINT64_MAX), "the loop ended");
    }
}

void Load::send_next(Client& client)
{
    if (toSend_ == 0) {
        return;
    }
    client.kind = deck_.draw();
    const MessagePtr message = all_requests()[client.kind].make(client.bus.get(), sent_);
    sd_bus_slot* slot = nullptr;
    check(sd_bus_call_async(client.bus.get(), &slot, message.get(), on_reply, &client, kPatienceUsec),
          "a request could not be sent");
    client.call.reset(slot);
    ++sent_;
    --toSend_;
    ++waiting_;
}

void Load::take(Client& client, sd_bus_message* reply)
{
    const Request& request = all_requests()[client.kind];
    const std::string answer = describe(reply);
    ++answers_.counts[request.label][answer];
    ++answers_.answered;
    answers_.wrong += documented(request, answer) ? 0 : 1;
    --waiting_;
    answered_();
    send_next(client);
}

int Load::on_reply(sd_bus_message* reply, void* client, sd_bus_error*)
{
    // The slot is in use until this returns, so it must not be released by the next call.
    auto& asking = *static_cast<Client*>(client);
    const SlotPtr done = std::move(asking.call);
    asking.load->take(asking, reply);
    return 0;
}
