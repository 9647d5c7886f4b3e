#pragma once

#include <array>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "fuzz_input.hpp"
#include "support/sd_bus_owners.hpp"
#include "utf8_check.hpp"

/** Real D-Bus messages out of fuzz bytes: any nesting of types that D-Bus allows, built with sd-bus. */
namespace fuzz {

/** A connection on which messages can be made. Nobody is at its other end, and nothing is ever sent. */
inline sd_bus* silent_bus()
{
    static sd_bus* const kBus = [] {
        static std::array<int, 2> ends{};
        sd_bus* made = nullptr;
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "a socket pair");
        require(sd_bus_new(&made) >= 0 && sd_bus_set_fd(made, ends[0], ends[0]) >= 0, "a connection");
        require(sd_bus_start(made) >= 0, "a started connection");
        return made;
    }();
    return kBus;
}

/** A signal that is still to be filled. Where D-Bus does not allow the path, it comes from "/". */
inline MessagePtr new_signal(const std::string& path = "/")
{
    sd_bus_message* made = nullptr;
    if (sd_bus_message_new_signal(silent_bus(), &made, path.c_str(), "a.b", "C") < 0) {
        require(sd_bus_message_new_signal(silent_bus(), &made, "/", "a.b", "C") >= 0, "a new message");
    }
    return MessagePtr(made);
}

/** Ends the filling: from now on the message can be read, from its start. */
inline void make_readable(const MessagePtr& message)
{
    require(sd_bus_message_seal(message.get(), 1, 0) >= 0, "the message can be sealed");
    require(sd_bus_message_rewind(message.get(), 1) >= 0, "the message can be read");
}

/** Whether sd-bus carries this as a text and gives it back as it was. */
inline bool sd_bus_takes(const std::string& text)
{
    const MessagePtr message = new_signal();
    if (sd_bus_message_append_basic(message.get(), 's', text.c_str()) < 0) {
        return false;
    }
    make_readable(message);
    const char* read = nullptr;
    return sd_bus_message_read_basic(message.get(), 's', &read) > 0 && read == text;
}

/** What was put into a dictionary: each key with the signature of the last value of it that is not skipped.
 */
using ExpectedTypes = std::map<std::string, std::string>;

/** Fills messages with what an input says. */
class MessageBuilder
{
public:
    /** @param names keys that the parser's users know, so that they come up often */
    MessageBuilder(Input& input, std::vector<std::string> names) : input_(input), names_(std::move(names)) {}

    /** Whether every text so far is one that a D-Bus message may hold; else parsing the message fails. */
    bool valid() const { return valid_; }

    /** Appends an "a{sv}". */
    void append_dictionary(const MessagePtr& message, ExpectedTypes& expected)
    {
        dictionary(message.get(), kDeepest, &expected);
    }

    /** Appends a value of a type that the input chooses. Returns its signature. */
    std::string append_any(const MessagePtr& message)
    {
        const std::string type = signature(kDeepest);
        value(message.get(), type, kDeepest);
        return type;
    }

private:
    static constexpr int kDeepest = 12;
    static constexpr std::string_view kBasic = "ybnqiuxtdsog";

    /** Types that the known keys have in real life, tried as often as all others together. */
    static constexpr std::array<const char*, 9> kLikely = {"b", "s",  "as",    "ao", "o",
                                                           "n", "ay", "a{sv}", "u"};

    std::string signature(int depth)
    {
        const size_t choice = input_.below(32);
        if (choice < 12) {
            return kLikely[input_.below(kLikely.size())];
        }
        if (choice < 22 || depth <= 0) {
            return std::string(1, kBasic[input_.below(kBasic.size())]);
        }
        if (choice < 25) {
            return "v";
        }
        if (choice < 28) {
            return "a" + signature(depth - 1);
        }
        if (choice < 30) {
            return std::string("a{") + kBasic[input_.below(kBasic.size())] + signature(depth - 1) + "}";
        }
        std::string members;
        for (size_t left = 1 + input_.below(3); left > 0; --left) {
            members += signature(depth - 4);
        }
        return "(" + members + ")";
    }

    std::string text()
    {
        std::string made(input_.bytes().substr(0, 40));
        std::erase(made, '\0');
        valid_ = valid_ && is_valid_text(made);
        return made;
    }

    /** Appends any bytes as a text: sd-bus itself would refuse to write what other programs may send. */
    static int append_text(sd_bus_message* message, const std::string& text)
    {
        char* space = nullptr;
        const int result = sd_bus_message_append_string_space(message, text.size(), &space);
        if (result >= 0) {
            std::memcpy(space, text.data(), text.size());
        }
        return result;
    }

    std::string key()
    {
        const size_t choice = input_.below(names_.size() + 2);
        return choice < names_.size() ? names_[choice] : text();
    }

    /** Texts for types whose contents D-Bus checks when they are written. */
    static constexpr std::array<const char*, 4> kPaths = {"/", "/fi/w1/wpa_supplicant1/Interfaces/1/BSSs/0",
                                                          "/a", "/com/vantora"};
    static constexpr std::array<const char*, 4> kSignatures = {"", "s", "a{sv}", "(ii)"};

    void basic(sd_bus_message* message, char type)
    {
        int result = 0;
        if (type == 's') {
            result = append_text(message, text());
        } else if (type == 'o') {
            result = sd_bus_message_append_basic(message, type, kPaths[input_.below(kPaths.size())]);
        } else if (type == 'g') {
            result =
                sd_bus_message_append_basic(message, type, kSignatures[input_.below(kSignatures.size())]);
        } else if (type == 'b') {
            const int flag = static_cast<int>(input_.below(2));
            result = sd_bus_message_append_basic(message, type, &flag);
        } else {
            const auto number = input_.number<uint64_t>();
            result = sd_bus_message_append_basic(message, type, &number);
        }
        require(result >= 0, "a basic value can be appended");
    }

    static void open(sd_bus_message* message, char type, const std::string& contents)
    {
        require(sd_bus_message_open_container(message, type, contents.c_str()) >= 0,
                "a container can be opened");
    }

    static void close(sd_bus_message* message)
    {
        require(sd_bus_message_close_container(message) >= 0, "a container can be closed");
    }

    /** Length of the first complete type of a signature. */
    static size_t first_type(std::string_view types)
    {
        size_t at = 0;
        while (types[at] == 'a') {
            ++at;
        }
        int open = 0;
        do {
            open += types[at] == '(' || types[at] == '{' ? 1 : 0;
            open -= types[at] == ')' || types[at] == '}' ? 1 : 0;
            ++at;
        } while (open > 0);
        return at;
    }

    void members(sd_bus_message* message, std::string_view types, int depth)
    {
        while (!types.empty()) {
            const size_t length = first_type(types);
            value(message, std::string(types.substr(0, length)), depth);
            types.remove_prefix(length);
        }
    }

    /** Appends a value of the type. Returns whether a parser of property maps keeps such a value. */
    bool value(sd_bus_message* message, const std::string& type, int depth)
    {
        const size_t elements = input_.empty() ? 0 : input_.below(4);
        switch (type[0]) {
        case 'v': {
            const std::string inner = depth > 0 ? signature(depth - 1) : "s";
            open(message, 'v', inner);
            const bool kept = value(message, inner, depth - 1);
            close(message);
            return kept;
        }
        case '(':
            open(message, 'r', type.substr(1, type.size() - 2));
            members(message, std::string_view(type).substr(1, type.size() - 2), depth - 1);
            close(message);
            return false;
        case '{':
            open(message, 'e', type.substr(1, type.size() - 2));
            members(message, std::string_view(type).substr(1, type.size() - 2), depth - 1);
            close(message);
            return false;
        case 'a':
            if (type == "a{sv}") {
                dictionary(message, depth - 1, nullptr);
                return true;
            }
            open(message, 'a', type.substr(1));
            for (size_t i = 0; i < elements; ++i) {
                value(message, type.substr(1), depth - 1);
            }
            close(message);
            return type.size() == 2 && kBasic.find(type[1]) != std::string_view::npos;
        default:
            basic(message, type[0]);
            return true;
        }
    }

    void dictionary(sd_bus_message* message, int depth, ExpectedTypes* expected)
    {
        open(message, 'a', "{sv}");
        for (size_t left = depth > 0 ? input_.below(8) : 0; left > 0 && !input_.empty(); --left) {
            open(message, 'e', "sv");
            const std::string name = key();
            require(append_text(message, name) >= 0, "a key can be appended");
            const std::string type = signature(depth - 1);
            open(message, 'v', type);
            const bool kept = value(message, type, depth - 1);
            close(message);
            close(message);
            if (expected != nullptr && kept) {
                (*expected)[name] = type;
            }
        }
        close(message);
    }

    Input& input_;
    std::vector<std::string> names_;
    bool valid_ = true;
};

} // namespace fuzz
