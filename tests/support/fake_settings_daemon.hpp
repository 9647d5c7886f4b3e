#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <systemd/sd-bus.h>

#include "private_bus.hpp"
#include "support/sd_bus_owners.hpp"

namespace testing_support {

/**
 * A settings daemon in a thread of its own, which writes down every call and answers as it is told; without
 * being told, with an empty reply.
 */
class FakeSettingsDaemon
{
public:
    using Fill = std::function<void(sd_bus_message*)>;

    explicit FakeSettingsDaemon(BusPtr bus) : bus_(std::move(bus))
    {
        if (sd_bus_add_filter(bus_.get(), nullptr, on_message, this) < 0 ||
            sd_bus_request_name(bus_.get(), "com.vantora.common.Settings1", 0) < 0) {
            throw std::runtime_error("cannot become the settings daemon");
        }
        thread_ = std::thread([this] { serve(); });
    }
    FakeSettingsDaemon(const FakeSettingsDaemon&) = delete;
    FakeSettingsDaemon& operator=(const FakeSettingsDaemon&) = delete;
    ~FakeSettingsDaemon()
    {
        stop_ = true;
        thread_.join();
    }

    /** Answers this method with what `fill` writes. */
    void answer(const std::string& method, Fill fill)
    {
        const std::lock_guard lock(mutex_);
        answers_[method] = {std::move(fill), "", ""};
    }

    /** Answers this method with an error. */
    void refuse(const std::string& method, const std::string& name, const std::string& text)
    {
        const std::lock_guard lock(mutex_);
        answers_[method] = {{}, name, text};
    }

    /** Notifies of changes at an object; `fill` writes the body. The thread sends it. */
    void emit(const std::string& path, Fill fill)
    {
        const std::lock_guard lock(mutex_);
        signals_.emplace_back(path, std::move(fill));
    }

    /** Every call so far, as "PATH INTERFACE.METHOD(ARGUMENTS)". */
    std::vector<std::string> calls() const
    {
        const std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    struct Answer
    {
        Fill fill;
        std::string errorName;
        std::string errorText;
    };

    void serve()
    {
        constexpr std::uint64_t kLookAgainUsec = 20'000;
        while (!stop_) {
            send_signals();
            if (sd_bus_process(bus_.get(), nullptr) == 0) {
                sd_bus_wait(bus_.get(), kLookAgainUsec);
            } else if (sd_bus_is_open(bus_.get()) <= 0) {
                return; // the bus has been taken away
            }
        }
    }

    void send_signals()
    {
        const std::lock_guard lock(mutex_);
        for (const auto& [path, fill] : signals_) {
            sd_bus_message* created = nullptr;
            sd_bus_message_new_signal(bus_.get(), &created, path.c_str(), "org.freedesktop.DBus.Properties",
                                      "PropertiesChanged");
            const MessagePtr message(created);
            fill(message.get());
            sd_bus_send(bus_.get(), message.get(), nullptr);
        }
        signals_.clear();
    }

    static int on_message(sd_bus_message* message, void* userdata, sd_bus_error*)
    {
        std::uint8_t type = 0;
        sd_bus_message_get_type(message, &type);
        return type == SD_BUS_MESSAGE_METHOD_CALL
                   ? static_cast<FakeSettingsDaemon*>(userdata)->reply_to(message)
                   : 0;
    }

    int reply_to(sd_bus_message* message)
    {
        const std::lock_guard lock(mutex_);
        calls_.push_back(std::string(sd_bus_message_get_path(message)) + " " +
                         sd_bus_message_get_interface(message) + "." + sd_bus_message_get_member(message) +
                         "(" + arguments_of(message) + ")");
        const Answer& answer = answers_[sd_bus_message_get_member(message)];
        if (!answer.errorName.empty()) {
            sd_bus_reply_method_errorf(message, answer.errorName.c_str(), "%s", answer.errorText.c_str());
            return 1;
        }
        sd_bus_message* created = nullptr;
        sd_bus_message_new_method_return(message, &created);
        const MessagePtr reply(created);
        if (answer.fill) {
            answer.fill(reply.get());
        }
        sd_bus_send(nullptr, reply.get(), nullptr);
        return 1;
    }

    /** Texts in quotes, truth values, and variants of both, separated by commas. */
    static std::string arguments_of(sd_bus_message* message)
    {
        std::string text;
        char type = 0;
        const char* contents = nullptr;
        while (sd_bus_message_peek_type(message, &type, &contents) > 0) {
            text += text.empty() ? "" : ", ";
            if (type == SD_BUS_TYPE_VARIANT) {
                const std::string inner = contents;
                sd_bus_message_enter_container(message, type, inner.c_str());
                text += "<" + inner + " " + basic_text(message, inner[0]) + ">";
                sd_bus_message_exit_container(message);
            } else {
                text += basic_text(message, type);
            }
        }
        return text;
    }

    static std::string basic_text(sd_bus_message* message, char type)
    {
        if (type == SD_BUS_TYPE_BOOLEAN) {
            int truth = 0;
            sd_bus_message_read_basic(message, type, &truth);
            return truth != 0 ? "true" : "false";
        }
        if (type == SD_BUS_TYPE_STRING) {
            const char* words = nullptr;
            sd_bus_message_read_basic(message, type, &words);
            return "'" + std::string(words) + "'";
        }
        throw std::runtime_error("the settings daemon was called with a type it does not know");
    }

    BusPtr bus_;
    mutable std::mutex mutex_;
    std::map<std::string, Answer> answers_;
    std::vector<std::pair<std::string, Fill>> signals_;
    std::vector<std::string> calls_;
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

} // namespace testing_support
