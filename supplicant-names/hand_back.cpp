#include "hand_back.hpp"

#include <cstring>

#include "bus_names.hpp"
#include "message_copy.hpp"
#include "refusal.hpp"
#include "support/sd_bus_owners.hpp"

namespace {

/** Whether the bus itself says that nobody has the name that was called. */
bool says_that_nobody_is_there(sd_bus_message* answer)
{
    const char* sender = sd_bus_message_get_sender(answer);
    return sender != nullptr && std::strcmp(sender, kBus) == 0 &&
           (sd_bus_message_is_method_error(answer, SD_BUS_ERROR_SERVICE_UNKNOWN) > 0 ||
            sd_bus_message_is_method_error(answer, SD_BUS_ERROR_NAME_HAS_NO_OWNER) > 0);
}

} // namespace

void hand_back(sd_bus_message* call, sd_bus_message* answer)
{
    if (sd_bus_message_get_expect_reply(call) <= 0) {
        return;
    }
    if (says_that_nobody_is_there(answer)) {
        answer_that_it_has_left(call);
        return;
    }
    MessagePtr made;
    int result = make_answer(call, answer, made);
    if (result >= 0) {
        result = sd_bus_send(nullptr, made.get(), nullptr);
    }
    if (result < 0) {
        answer_that_it_failed(call, result);
    }
}
