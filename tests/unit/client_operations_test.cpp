#include "core/client_operations.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <syslog.h>

#include "core/radio_state.hpp"
#include "core/service.hpp"
#include "radio/wpa_supplicant.hpp"
#include "support/captured_log.hpp"
#include "support/private_bus.hpp"
#include "utils/shell_commands.hpp"

// What no neighbour can cause: results of exactly 0, arguments that sd-bus itself would have refused, and
// failures of sd-bus. Everything that the operations call is replaced here.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::captured_log;
using testing_support::LogLine;
using testing_support::PrivateBus;

/** What the operations stand on. */
struct Ground
{
    RadioState radio = RadioState::Client;
    int scanned = 1;
    int added = 1;
    bool selected = true;
    bool left = true;
    int listed = 1;
    AccessPoints accessPoints;
    std::string currentNetwork;
    sd_bus* bus = nullptr;
    std::vector<std::string> calls;
};

Ground ground;

/** Which call of a function of sd-bus fails, counted from 1; 0 for none. */
int failingOpen = 0;
int failingClose = 0;

/** How many messages were handed to sd-bus. */
int sent = 0;

int fails_now(int& countdown)
{
    return countdown > 0 && --countdown == 0 ? -ENOMEM : 0;
}

template <typename Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

RadioState read_radio_state()
{
    return ground.radio;
}

bool utils_flush_ip()
{
    ground.calls.emplace_back("flush");
    return true;
}
bool utils_add_ip(const std::string&)
{
    return true;
}
int utils_do_system_call(const std::string&)
{
    return 0;
}

int wpa_supplicant_scan()
{
    return ground.scanned;
}
int wpa_supplicant_add_network(const std::string& ssid, const std::string& passphrase, std::string& path)
{
    ground.calls.push_back("add " + ssid + " " + passphrase);
    path = ground.added != 0 ? "/added" : "";
    return ground.added;
}
bool wpa_supplicant_select_network(const std::string& path)
{
    ground.calls.push_back("select " + path);
    return ground.selected;
}
bool wpa_supplicant_remove_network(const std::string& path)
{
    ground.calls.push_back("remove " + path);
    return false;
}
bool wpa_supplicant_disconnect_network()
{
    return ground.left;
}
bool wpa_supplicant_get_current_network(std::string& path)
{
    path = ground.currentNetwork;
    return !path.empty();
}

int wpa_supplicant_get_access_points(AccessPoints& accessPoints)
{
    accessPoints = ground.accessPoints;
    return ground.listed;
}

sd_bus* service_bus()
{
    return ground.bus;
}
void emit_property_changed(const char* property)
{
    ground.calls.push_back(std::string("emit ") + property);
}

extern "C" {

int sd_bus_message_open_container(sd_bus_message* message, char type, const char* contents)
{
    const int failed = fails_now(failingOpen);
    return failed != 0 ? failed
                       : next<decltype(sd_bus_message_open_container)>("sd_bus_message_open_container")(
                             message, type, contents);
}

int sd_bus_message_close_container(sd_bus_message* message)
{
    const int failed = fails_now(failingClose);
    return failed != 0
               ? failed
               : next<decltype(sd_bus_message_close_container)>("sd_bus_message_close_container")(message);
}

int sd_bus_send(sd_bus* bus, sd_bus_message* message, uint64_t* cookie)
{
    ++sent;
    return next<decltype(sd_bus_send)>("sd_bus_send")(bus, message, cookie);
}
}

namespace {

/** Name and text of the error that a call was answered with; both empty for a reply. */
struct Answer
{
    std::string name;
    std::string text;
};

class ClientOperations : public testing::Test
{
protected:
    void SetUp() override
    {
        ground = Ground{};
        failingOpen = 0;
        failingClose = 0;
        service = privateBus.connect();
        client = privateBus.connect();
        sd_bus_get_unique_name(service.get(), &serviceName);
        sd_bus_add_filter(
            service.get(), nullptr,
            [](sd_bus_message* message, void* userdata, sd_bus_error*) {
                if (sd_bus_message_is_method_call(message, "com.example.Test", "Call") == 0) {
                    return 0;
                }
                const int handled = (*static_cast<std::function<int(sd_bus_message*)>*>(userdata))(message);
                EXPECT_EQ(handled, 1) << "sd-bus would answer once more, that there is no such method";
                return 1;
            },
            &handler);
        ground.bus = service.get();
        captured_log().clear();
    }

    /** Has the operation answer a call with the given texts, or with a single number instead. */
    Answer ask(std::function<int(sd_bus_message*)> operation, bool readable = true)
    {
        handler = std::move(operation);
        sd_bus_message* created = nullptr;
        sd_bus_message_new_method_call(client.get(), &created, serviceName, "/test", "com.example.Test",
                                       "Call");
        const MessagePtr request(created);
        if (readable) {
            sd_bus_message_append(request.get(), "ss", "cafe", "secret12");
        } else {
            sd_bus_message_append(request.get(), "u", 7U);
        }
        Answer answer{"none", ""};
        bool answered = false;
        struct Context
        {
            Answer& answer;
            bool& answered;
        } context{answer, answered};
        sd_bus_call_async(
            client.get(), nullptr, request.get(),
            [](sd_bus_message* reply, void* userdata, sd_bus_error*) {
                auto& [result, done] = *static_cast<Context*>(userdata);
                const sd_bus_error* error = sd_bus_message_get_error(reply);
                result = error != nullptr ? Answer{error->name, error->message} : Answer{};
                done = true;
                return 0;
            },
            &context, 0);
        while (!answered) {
            if (sd_bus_process(service.get(), nullptr) == 0 && sd_bus_process(client.get(), nullptr) == 0) {
                sd_bus_wait(service.get(), 1000);
            }
        }
        return answer;
    }

    /** A message that values can be appended to. */
    MessagePtr empty_message() const
    {
        sd_bus_message* created = nullptr;
        EXPECT_GE(sd_bus_message_new_signal(service.get(), &created, "/test", "com.example.Test", "Holder"),
                  0);
        return MessagePtr(created);
    }

    static void expect_failure(const Answer& answer, const std::string& text)
    {
        EXPECT_EQ(answer.name, "org.freedesktop.DBus.Error.Failed");
        EXPECT_EQ(answer.text, text);
    }

    PrivateBus privateBus;
    BusPtr service;
    BusPtr client;
    const char* serviceName = nullptr;
    std::function<int(sd_bus_message*)> handler;
};

TEST_F(ClientOperations, AScanFailsWithTheResult0Only)
{
    EXPECT_EQ(ask(scan_access_points).name, "");
    ground.scanned = 0;
    expect_failure(ask(scan_access_points), "Failed to start AP scan");
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_ERR, "[Main] scan_access_points: Failed to start AP scan"}));
}

TEST_F(ClientOperations, ANetworkAddedWithTheResult0FailsBeforeItIsSelected)
{
    ground.added = 0;
    expect_failure(ask(connect_to_ap), "Failed to add network");
    EXPECT_THAT(
        captured_log().lines(),
        ElementsAre(LogLine{LOG_INFO, "[Main] Connect to the AP"},
                    LogLine{LOG_INFO, "[Main] Flush IP address"}, LogLine{LOG_INFO, "[Main] Add new network"},
                    LogLine{LOG_ERR, "[Main] connect_to_ap: Failed to add network to WPE supplicant"}));
    EXPECT_THAT(ground.calls, ElementsAre("flush", "add cafe secret12"));
}

TEST_F(ClientOperations, ConnectWithUnreadableArgumentsTouchesNothing)
{
    ground.currentNetwork = "/old";
    expect_failure(ask(connect_to_ap, false), "Failed to parse d-bus message");
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_INFO, "[Main] Connect to the AP"},
                            LogLine{LOG_ERR, "[Main] connect_to_ap: Failed to parse d-bus message"}));
    EXPECT_THAT(ground.calls, IsEmpty());
}

TEST_F(ClientOperations, ConnectReadsItsArgumentsOnlyAsAStation)
{
    ground.radio = RadioState::Off;
    expect_failure(ask(connect_to_ap, false), "Wifi is off");
    ground.radio = RadioState::Unknown;
    expect_failure(ask(connect_to_ap, false), "WiFi is in unknown mode");
    ground.radio = RadioState::Host;
    expect_failure(ask(connect_to_ap, false), "WiFi is not in client mode");
}

TEST_F(ClientOperations, ConnectRemovesFlushesAddsAndSelectsInOrder)
{
    ground.currentNetwork = "/old";
    const Answer answer = ask(connect_to_ap);
    EXPECT_EQ(answer.name, "");
    EXPECT_THAT(ground.calls, ElementsAre("flush", "remove /old", "add cafe secret12", "select /added"));
}

TEST_F(ClientOperations, ANetworkThatCanNotBeSelectedIsRemovedBeforeTheStateIsAnnounced)
{
    ground.selected = false;
    expect_failure(ask(connect_to_ap), "Failed to connect to AP");
    EXPECT_THAT(ground.calls, ElementsAre("flush", "add cafe secret12", "select /added", "remove /added",
                                          "emit WiFiClientState"));
}

TEST_F(ClientOperations, AFailedAssociationWithoutACurrentNetworkRemovesNothing)
{
    client_connect_failed();
    EXPECT_THAT(ground.calls, IsEmpty());
    ground.currentNetwork = "/current";
    client_connect_failed();
    EXPECT_THAT(ground.calls, ElementsAre("remove /current"));
    EXPECT_THAT(captured_log().lines(), ElementsAre(LogLine{LOG_ERR, "Failed to connect to AP"},
                                                    LogLine{LOG_ERR, "Failed to connect to AP"}));
}

TEST_F(ClientOperations, AListThatCanNotBeFetchedCountsAsEmptyEvenWhenItWasHalfFilled)
{
    ground.listed = 0;
    ground.accessPoints = {{"/bss", "cafe", 1, -40, true}};
    const MessagePtr message = empty_message();
    EXPECT_GE(get_wifi_access_points(message.get()), 0);
    ASSERT_GE(sd_bus_message_seal(message.get(), 1, 0), 0);
    EXPECT_STREQ(sd_bus_message_get_signature(message.get(), 1), "a(siib)");
    EXPECT_EQ(sd_bus_message_enter_container(message.get(), 'a', "(siib)"), 1);
    EXPECT_EQ(sd_bus_message_at_end(message.get(), 0), 1);
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_ERR, "[Main]  Something went wrong with getting APs"}));
}

TEST_F(ClientOperations, TheGetterReturnsWhatClosingTheArrayReturned)
{
    ground.accessPoints = {{"/bss", "cafe", 1, -40, true}};
    EXPECT_GE(get_wifi_access_points(empty_message().get()), 0);
    failingClose = 2; // the first closes the struct
    EXPECT_EQ(get_wifi_access_points(empty_message().get()), -ENOMEM);
}

TEST_F(ClientOperations, DisconnectIsForAStationThatWpaSupplicantLetsGo)
{
    ground.radio = RadioState::Off;
    expect_failure(ask(disconnect_from_ap), "Wifi is off");
    ground.radio = RadioState::Unknown;
    expect_failure(ask(disconnect_from_ap), "WiFi is in unknown mode");
    ground.radio = RadioState::Host;
    expect_failure(ask(disconnect_from_ap), "WiFi is not in client mode");
    ground.radio = RadioState::Client;
    ground.left = false;
    expect_failure(ask(disconnect_from_ap), "Failed to connect to AP");
    EXPECT_THAT(ground.calls, IsEmpty());

    const LogLine called{LOG_INFO, "[Main] Disconnect from AP called"};
    const auto refused = [](const std::string& why) {
        return LogLine{LOG_ERR, "[Main] disconnect_from_ap: " + why};
    };
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(called, refused("Wifi is off"), called, refused("Failed to read wifi mode"),
                            called, refused("Wifi must be in client mode"), called,
                            refused("Failed to connect to AP")));
}

TEST_F(ClientOperations, ADisconnectFlushesAndAnnounces)
{
    EXPECT_EQ(ask(disconnect_from_ap).name, "");
    EXPECT_THAT(ground.calls, ElementsAre("flush", "emit SSID", "emit IPAddress"));
}

// The signal AccessPointsChanged

class AccessPointsSignal : public ClientOperations
{
protected:
    /** Sends the list of one access point; returns the lines after the first. */
    std::vector<LogLine> lines_of_sending()
    {
        captured_log().clear();
        sent = 0;
        access_points_changed({{"/bss", "cafe", 1, -40, true}});
        std::vector<LogLine> lines = captured_log().lines();
        EXPECT_EQ(lines.front(), (LogLine{LOG_INFO, "[Main] Access points changed"}));
        lines.erase(lines.begin());
        return lines;
    }
};

TEST_F(AccessPointsSignal, IsSentWithoutAFurtherWord)
{
    EXPECT_THAT(lines_of_sending(), IsEmpty());
    EXPECT_EQ(sent, 1);
}

TEST_F(AccessPointsSignal, IsGivenUpWithoutABus)
{
    ground.bus = nullptr;
    EXPECT_THAT(
        lines_of_sending(),
        ElementsAre(LogLine{LOG_ERR, "[Main] access_points_changed: Failed to create new signal message"}));
}

TEST_F(AccessPointsSignal, IsGivenUpAtTheStepThatFails)
{
    const auto line = [](const std::string& step) {
        return ElementsAre(LogLine{LOG_ERR, "[Main] access_points_changed: " + step});
    };
    failingOpen = 1;
    EXPECT_THAT(lines_of_sending(), line("sd_bus_open_container array failed"));
    EXPECT_EQ(sent, 0);
    failingOpen = 2;
    EXPECT_THAT(lines_of_sending(), line("sd_bus_open_container struct failed"));
    failingClose = 1;
    EXPECT_THAT(lines_of_sending(), line("sd_bus_close_container struct failed"));
    failingClose = 2;
    EXPECT_THAT(lines_of_sending(), line("sd_bus_close_container failed"));
}

TEST_F(AccessPointsSignal, SaysWhenALostBusDoesNotTakeIt)
{
    sd_bus_close(service.get());
    EXPECT_THAT(lines_of_sending(),
                ElementsAre(LogLine{LOG_ERR, "[Main] access_points_changed: sd_bus_send failed"}));
}

} // namespace
