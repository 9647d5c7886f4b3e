#include "refusal.hpp"

#include <cstring>

#include "bus_names.hpp"

// sd_bus_reply_method_errorf sends nothing where no answer is expected.

void answer_that_it_has_left(sd_bus_message* call)
{
    sd_bus_reply_method_errorf(call, SD_BUS_ERROR_NO_REPLY, "%s",
                               "Message recipient disconnected from message bus without replying");
}

void answer_that_only_root_may(sd_bus_message* call)
{
    sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "Only root may call %s", kOlderName);
}

void answer_that_it_failed(sd_bus_message* call, int result)
{
    sd_bus_reply_method_errorf(call, SD_BUS_ERROR_FAILED, "The call could not be handed on: %s",
                               std::strerror(-result));
}
