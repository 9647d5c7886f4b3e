#include <array>
#include <cstring>

#include "message_builder.hpp"
#include "message_copy.hpp"

// Calls and answers of any body, handed on and handed back: what arrives is what was sent, value by value and
// type by type, or nothing at all where no bus would have let it through.

namespace {

constexpr const char* kPath = "/fi/w1/wpa_supplicant1/Interfaces/1";
constexpr const char* kOtherPath = "/fi/w1/wpa_supplicant1/Interfaces/7";

MessagePtr new_call(fuzz::Input& input)
{
    sd_bus_message* made = nullptr;
    fuzz::require(sd_bus_message_new_method_call(fuzz::silent_bus(), &made, "a.b", kPath,
                                                 input.below(4) == 0 ? nullptr : "a.b", "C") >= 0,
                  "a new call");
    sd_bus_message_set_auto_start(made, static_cast<int>(input.below(2)));
    sd_bus_message_set_allow_interactive_authorization(made, static_cast<int>(input.below(2)));
    return MessagePtr(made);
}

/** A return or an error that holds nothing yet. */
MessagePtr new_answer(fuzz::Input& input, const MessagePtr& call)
{
    static constexpr std::array<const char*, 3> kNames = {nullptr, "a.b",
                                                          "org.freedesktop.DBus.Error.ServiceUnknown"};

    const char* name = kNames[input.below(kNames.size())];
    sd_bus_message* made = nullptr;
    int result = 0;
    if (name == nullptr) {
        result = sd_bus_message_new_method_return(call.get(), &made);
    } else {
        BusError error;
        sd_bus_error_set(error.get(), name, nullptr);
        result = sd_bus_message_new_method_error(call.get(), &made, error.get());
    }
    fuzz::require(result >= 0, "a new answer");
    return MessagePtr(made);
}

bool is_text(char type)
{
    return type == 's' || type == 'o' || type == 'g';
}

void require_same_value(sd_bus_message* a, sd_bus_message* b, char type)
{
    if (is_text(type)) {
        const char* first = nullptr;
        const char* second = nullptr;
        fuzz::require(sd_bus_message_read_basic(a, type, &first) > 0 &&
                          sd_bus_message_read_basic(b, type, &second) > 0 && std::strcmp(first, second) == 0,
                      "a text is the same");
        return;
    }
    uint64_t first = 0;
    uint64_t second = 0;
    fuzz::require(sd_bus_message_read_basic(a, type, &first) > 0 &&
                      sd_bus_message_read_basic(b, type, &second) > 0 && first == second,
                  "a number is the same, bit by bit");
}

/** Compares what is left of two containers, value by value: otherwise than it was copied. */
void require_same(sd_bus_message* a, sd_bus_message* b)
{
    for (;;) {
        std::array<char, 2> types{};
        std::array<const char*, 2> contents{};
        const int first = sd_bus_message_peek_type(a, &types[0], &contents[0]);
        const int second = sd_bus_message_peek_type(b, &types[1], &contents[1]);
        fuzz::require(first >= 0 && first == second, "one ends where the other does");
        if (first == 0) {
            return;
        }
        fuzz::require(types[0] == types[1], "the types are the same");
        if (contents[0] == nullptr) {
            require_same_value(a, b, types[0]);
            continue;
        }
        fuzz::require(std::strcmp(contents[0], contents[1]) == 0, "and what is in them");
        fuzz::require(sd_bus_message_enter_container(a, types[0], contents[0]) >= 0 &&
                          sd_bus_message_enter_container(b, types[1], contents[1]) >= 0,
                      "both can be entered");
        require_same(a, b);
        fuzz::require(sd_bus_message_exit_container(a) >= 0 && sd_bus_message_exit_container(b) >= 0,
                      "and left");
    }
}

/** Fills a message with some values and makes it readable. @return whether a bus would let it through */
bool fill(fuzz::Input& input, const MessagePtr& message)
{
    fuzz::MessageBuilder builder(input, {"ssid", "psk", "Type"});
    for (size_t left = input.below(4); left > 0; --left) {
        builder.append_any(message);
    }
    fuzz::make_readable(message);
    return builder.valid();
}

void require_same_body(const MessagePtr& original, const MessagePtr& copy)
{
    fuzz::require(sd_bus_message_seal(copy.get(), 2, 0) >= 0, "the copy can be sent");
    fuzz::require(std::strcmp(sd_bus_message_get_signature(original.get(), 1),
                              sd_bus_message_get_signature(copy.get(), 1)) == 0,
                  "the signatures are the same");
    sd_bus_message_rewind(original.get(), 1);
    sd_bus_message_rewind(copy.get(), 1);
    require_same(original.get(), copy.get());
}

void hand_on(const MessagePtr& call)
{
    MessagePtr handed;
    fuzz::require(make_handed_call(fuzz::silent_bus(), call.get(), ":1.5", kOtherPath, handed) >= 0,
                  "a call is handed on");
    require_same_body(call, handed);
    fuzz::require(std::strcmp(sd_bus_message_get_path(handed.get()), kOtherPath) == 0 &&
                      std::strcmp(sd_bus_message_get_destination(handed.get()), ":1.5") == 0,
                  "where it is to go");
    fuzz::require(sd_bus_message_is_method_call(handed.get(), sd_bus_message_get_interface(call.get()), "C") >
                          0 &&
                      (sd_bus_message_get_interface(call.get()) == nullptr) ==
                          (sd_bus_message_get_interface(handed.get()) == nullptr),
                  "as what it came");
    fuzz::require(sd_bus_message_get_auto_start(handed.get()) == sd_bus_message_get_auto_start(call.get()) &&
                      sd_bus_message_get_allow_interactive_authorization(handed.get()) ==
                          sd_bus_message_get_allow_interactive_authorization(call.get()) &&
                      sd_bus_message_get_expect_reply(handed.get()) > 0,
                  "with its flags");
}

void hand_back(const MessagePtr& call, const MessagePtr& answer)
{
    MessagePtr handed;
    fuzz::require(make_answer(call.get(), answer.get(), handed) >= 0, "an answer is handed back");
    require_same_body(answer, handed);
    const sd_bus_error* before = sd_bus_message_get_error(answer.get());
    const sd_bus_error* after = sd_bus_message_get_error(handed.get());
    fuzz::require((before == nullptr) == (after == nullptr), "a return stays one, and an error");
    if (before != nullptr) {
        fuzz::require(std::strcmp(before->name, after->name) == 0, "its name is the same");
        const char* texts[] = {before->message, after->message};
        fuzz::require((texts[0] == nullptr) == (texts[1] == nullptr) &&
                          (texts[0] == nullptr || std::strcmp(texts[0], texts[1]) == 0),
                      "and its text");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const MessagePtr call = new_call(input);
    MessagePtr unused;
    if (!fill(input, call)) {
        // No bus lets such a text through. Where it was, the copying ends.
        make_handed_call(fuzz::silent_bus(), call.get(), ":1.5", kOtherPath, unused);
        return 0;
    }
    hand_on(call);
    const MessagePtr answer = new_answer(input, call);
    if (fill(input, answer)) {
        hand_back(call, answer);
    } else {
        make_answer(call.get(), answer.get(), unused);
    }
    return 0;
}
