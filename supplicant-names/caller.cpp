#include "caller.hpp"

#include <cerrno>
#include <cstdint>
#include <string_view>
#include <utility>

#include <syslog.h>

#include "bus_call.hpp"
#include "bus_names.hpp"
#include "hand_back.hpp"
#include "refusal.hpp"

namespace {

/** Calls of one caller that may wait here. Calls that want an answer are far fewer, the bus sees to that. */
constexpr size_t kMostWaiting = 1024;

} // namespace

Caller::Caller(sd_bus* bus, std::string name, Supplicant& supplicant, LanePool& lanes, const BssList& list)
    : bus_(bus), name_(std::move(name)), supplicant_(supplicant), lanes_(lanes), ahead_(list)
{
}

Caller::~Caller()
{
    if (ahead_.idle()) {
        lanes_.give_back(std::move(lane_));
    }
}

void Caller::take(sd_bus_message* call)
{
    if (standing_ == Standing::Refused) {
        answer_that_only_root_may(call);
        return;
    }
    if (waiting_.size() >= kMostWaiting) {
        answer_that_it_failed(call, -ENOBUFS);
        return;
    }
    waiting_.emplace_back(sd_bus_message_ref(call));
    if (standing_ == Standing::Unknown) {
        ask_for_user();
    }
    go_on();
}

void Caller::ask_for_user()
{
    standing_ = Standing::Asked;
    if (call_bus(bus_, userCall_, "GetConnectionUnixUser", name_.c_str(), user_answered, this) < 0) {
        refuse_all();
    }
}

int Caller::user_answered(sd_bus_message* answer, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<Caller*>(userdata);
    self->userCall_.reset();
    self->judge(answer);
    return 0;
}

void Caller::judge(sd_bus_message* answer)
{
    uint32_t user = 0;
    if (sd_bus_message_is_method_error(answer, nullptr) > 0 ||
        sd_bus_message_read_basic(answer, 'u', &user) <= 0) {
        refuse_all();
    } else if (user != 0) {
        syslog(LOG_WARNING, "[Names] Refused the calls of user %u", user);
        refuse_all();
    } else {
        standing_ = Standing::Root;
        go_on();
    }
}

void Caller::refuse_all()
{
    standing_ = Standing::Refused;
    for (const MessagePtr& call : waiting_) {
        answer_that_only_root_may(call.get());
    }
    waiting_.clear();
}

void Caller::go_on()
{
    if (standing_ != Standing::Root) {
        return;
    }
    while (!waiting_.empty() && hand_on(waiting_.front().get())) {
        waiting_.pop_front();
    }
}

bool Caller::hand_on(sd_bus_message* call)
{
    awaitsStation_ = false;
    const char* path = sd_bus_message_get_path(call);
    if (std::string_view(path) == kFirstObject) {
        if (supplicant_.station().empty()) {
            awaitsStation_ = true;
            supplicant_.locate_station();
            return false;
        }
        path = supplicant_.station().c_str();
    }
    const int result = hand_on(call, path);
    if (result < 0) {
        syslog(LOG_ERR, "[Names] Failed to hand a call on: %d", result);
        answer_that_it_failed(call, result);
    }
    return true;
}

int Caller::hand_on(sd_bus_message* call, const char* path)
{
    const char* destination = supplicant_.name().c_str();
    if (!lane_) {
        lane_ = lanes_.take();
    }
    const int result = ahead_.take(call) ? 1 : lane_->hand_on(call, destination, path);
    if (result >= 0) {
        ahead_.go_on(lane_->bus(), destination, call);
    }
    return result;
}

void Caller::station_located(sd_bus_message* error)
{
    if (!std::exchange(awaitsStation_, false)) {
        return;
    }
    if (error != nullptr) {
        sd_bus_message* call = waiting_.front().get();
        if (sd_bus_message_is_method_error(error, nullptr) > 0) {
            hand_back(call, error);
        } else {
            answer_that_it_failed(call, -EBADMSG);
        }
        waiting_.pop_front();
    }
    go_on();
}
