#include <array>
#include <chrono>
#include <ctime>
#include <deque>
#include <functional>
#include <string>

#include "commands.hpp"
#include "properties.hpp"
#include "status.hpp"
#include "text.hpp"

namespace client {

namespace {

/** The time of day for people, the moment in UTC for programs. */
std::string time_text(bool forPrograms)
{
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto fraction =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm parts{};
    if (forPrograms) {
        ::gmtime_r(&seconds, &parts);
    } else {
        ::localtime_r(&seconds, &parts);
    }
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), forPrograms ? "%Y-%m-%dT%H:%M:%S" : "%H:%M:%S", &parts);
    if (!forPrograms) {
        return text.data();
    }
    const std::string digits = std::to_string(1000 + fraction).substr(1);
    return std::string(text.data()) + "." + digits + "Z";
}

std::string networks_text(const Json& networks)
{
    std::string text = std::to_string(networks.size()) + " in range";
    if (!networks.empty()) {
        const Json& best = networks.front();
        text += ", strongest \"" + escaped(best["ssid"].get<std::string>()) + "\" " + best["signal"].dump() +
                " dBm";
    }
    return text;
}

class Monitor
{
public:
    Monitor(Daemon& daemon, const Arguments& arguments, Output& output)
        : daemon_(daemon), timeout_(arguments.timeout), output_(output)
    {
    }

    std::optional<Failure> run()
    {
        if (auto failure = daemon_.follow(events(), Clock::now() + timeout_)) {
            return failure;
        }
        if (auto failure = show_state()) {
            return failure;
        }
        while (output_.complete()) {
            if (auto failure = daemon_.step(kNever)) {
                return failure;
            }
            while (!due_.empty()) {
                const auto task = std::move(due_.front());
                due_.pop_front();
                // A daemon that is gone by now says so itself.
                if (auto failure = task(); failure && failure->status != ExitStatus::Unreachable) {
                    return failure;
                }
            }
        }
        return std::nullopt;
    }

private:
    using Task = std::function<std::optional<Failure>()>;

    /** Whatever needs a question of its own is put off: it cannot be asked from within an event. */
    Daemon::Events events()
    {
        Daemon::Events events;
        events.changed = [this](const std::string& property, const Json& value) {
            if (const PropertyName* const known = find_property(property); known != nullptr) {
                show(*known, field_value(*known, value));
            }
            // The name of the network joined is never announced itself; these say when to look.
            if (property == "WiFiClientState" || property == "SSID") {
                due_.emplace_back([this] { return look_at_network(); });
            }
        };
        events.networks = [this](const Json& networks) {
            if (output_.json()) {
                output_.object("networks", stamped({{"networks", networks}}));
            }
            line("Networks", networks_text(networks));
        };
        events.presence = [this](bool running) {
            if (output_.json()) {
                output_.object("daemon", stamped({{"running", running}}));
            }
            line("Daemon", running ? "is back" : "has left the bus; waiting for it to come back");
            if (running) {
                due_.emplace_back([this] { return show_state(); });
            }
        };
        events.unreadable = [this](const std::string& text) { output_.warning(text); };
        return events;
    }

    std::optional<Failure> show_state()
    {
        auto fields = read_status(daemon_, Clock::now() + timeout_);
        if (!fields) {
            return fields.failure();
        }
        network_ = fields.value()["client_ssid"];
        if (output_.json()) {
            output_.object("status", stamped(fields.value()));
        } else {
            output_.table(status_table(fields.value(), output_.terminal()));
        }
        return std::nullopt;
    }

    std::optional<Failure> look_at_network()
    {
        auto network = daemon_.get("ClientSSID", Clock::now() + timeout_);
        if (!network) {
            return network.failure();
        }
        if (network.value() != network_) {
            network_ = network.value();
            show(*find_property("ClientSSID"), network_);
        }
        return std::nullopt;
    }

    void show(const PropertyName& property, const Json& value)
    {
        if (output_.json()) {
            output_.object("changed", stamped({{"name", property.field}, {"value", value}}));
        }
        line(property.label, field_text(property.field, value));
    }

    void line(const std::string& label, const std::string& text)
    {
        const Terminal& terminal = output_.terminal();
        output_.line(terminal.styled(Style::Faint, time_text(false)) + "  " +
                     terminal.styled(Style::Heading, label) +
                     std::string(label.size() < 14 ? 14 - label.size() : 0, ' ') + "  " + text);
    }

    static Json stamped(Json fields)
    {
        fields["time"] = time_text(true);
        return fields;
    }

    Daemon& daemon_;
    std::chrono::milliseconds timeout_;
    Output& output_;
    Json network_;
    std::deque<Task> due_;
};

} // namespace

std::optional<Failure> run_monitor(Daemon& daemon, const Arguments& arguments, Output& output)
{
    return Monitor(daemon, arguments, output).run();
}

} // namespace client
