#include "core/network_interface.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <syslog.h>

#include "core/network_properties.hpp"
#include "core/service.hpp"
#include "core/wifi_control.hpp"
#include "korrin-info/korrin_info.hpp"
#include "radio/access_points.hpp"
#include "radio/hostapd.hpp"
#include "radio/wifi_controller.hpp"
#include "radio/wpa_supplicant.hpp"
#include "support/bus_pair.hpp"
#include "support/captured_log.hpp"
#include "utils/interface_queries.hpp"
#include "utils/shell_commands.hpp"

// The object's handlers on a connection of their own. What they ask and what they command is replaced here,
// so that answers can be given that no real neighbour gives: messages that can not be read, results of
// exactly 0.

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::BusPair;
using testing_support::CallResult;
using testing_support::captured_log;
using testing_support::LogLine;

namespace {

/** What the replaced functions answer, and what they were asked to do. */
struct Surroundings
{
    bool on = true;
    int modeReadable = 1;
    WifiMode mode = WifiMode::Host;
    int operation = 0;
    int hostapdReadable = 1;
    int scan = 1;
    int addNetwork = 1;
    int accessPoints = 1;
    int radioType = 1;
    bool power = true;
    std::vector<std::string> done;
};

Surroundings around;

constexpr const char* kFailed = "org.freedesktop.DBus.Error.Failed";
constexpr const char* kDenied = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kOddPath = "/odd";
constexpr const char* kOddInterface = "test.Odd";

/** Result of the handler that an odd message was given to. */
int oddResult = 0;

/** A method that sd-bus lets through, with an argument of a type that the handler does not expect. */
template <auto Setter>
int hand_to_setter(sd_bus_message* message, void*, sd_bus_error* error)
{
    oddResult = Setter(nullptr, kNetworkPath, kNetworkInterface, "", message, nullptr, error);
    return oddResult;
}

template <auto Method>
int hand_to_method(sd_bus_message* message, void*, sd_bus_error*)
{
    oddResult = Method(message);
    return oddResult;
}

} // namespace

int connect_to_ap(sd_bus_message* message);

namespace {

/** The method of the object that a call of "Method" is handed to, without arguments. */
sd_bus_message_handler_t method = nullptr;

int hand_to_chosen_method(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    oddResult = method(message, userdata, error);
    return oddResult;
}

const sd_bus_vtable kOddTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("WiFiState", "d", "", hand_to_setter<set_wifi_state_dbus>, 0),
    SD_BUS_METHOD("Mode", "d", "", hand_to_setter<change_wifi_mode_dbus>, 0),
    SD_BUS_METHOD("WiFiFrequency", "d", "", hand_to_setter<set_wifi_frequency_dbus>, 0),
    SD_BUS_METHOD("SSID", "d", "", hand_to_setter<set_wifi_ssid_dbus>, 0),
    SD_BUS_METHOD("Connect", "d", "", hand_to_method<connect_to_ap>, 0),
    SD_BUS_METHOD("Method", "", "", hand_to_chosen_method, 0),
    SD_BUS_VTABLE_END,
};

class NetworkInterface : public testing::Test
{
protected:
    NetworkInterface()
    {
        around = {};
        oddResult = 0;
        captured_log().clear();
        EXPECT_GE(sd_bus_add_object_vtable(pair.service(), nullptr, kNetworkPath, kNetworkInterface,
                                           network_interface_vtable(), nullptr),
                  0);
        EXPECT_GE(
            sd_bus_add_object_vtable(pair.service(), nullptr, kOddPath, kOddInterface, kOddTable, nullptr),
            0);
    }

    CallResult call_oddly(const char* member) const
    {
        return pair.call(kOddPath, kOddInterface, member, "d", 2.4);
    }

    CallResult get(const char* property) const
    {
        return pair.call(kNetworkPath, kProperties, "Get", "ss", kNetworkInterface, property);
    }

    template <typename Value>
    CallResult set(const char* property, const char* type, Value value) const
    {
        return pair.call(kNetworkPath, kProperties, "Set", "ssv", kNetworkInterface, property, type, value);
    }

    std::string text(const char* property) const
    {
        const CallResult result = get(property);
        const char* value = "(not a text)";
        sd_bus_message_read(result.reply.get(), "v", "s", &value);
        return value;
    }

    template <typename... Arguments>
    CallResult call(const char* member, const char* types, Arguments... arguments) const
    {
        return pair.call(kNetworkPath, kNetworkInterface, member, types, arguments...);
    }

    BusPair pair;
};

void expect_refused(const CallResult& result, const char* name, const char* text)
{
    EXPECT_EQ(result.error, name);
    EXPECT_EQ(result.text, text);
}

} // namespace

// Replaced functions

int set_wifi_state(uint32_t state)
{
    around.done.push_back("state " + std::to_string(state));
    return around.operation;
}

int set_wifi_mode(const std::string& mode, WriteThrough writeThrough)
{
    around.done.push_back("mode " + mode + (writeThrough == WriteThrough::On ? " stored" : ""));
    return around.operation;
}

int set_wifi_frequency(const std::string& frequency, WriteThrough writeThrough)
{
    around.done.push_back("frequency " + frequency + (writeThrough == WriteThrough::On ? " stored" : ""));
    return around.operation;
}

int set_wifi_ssid(const std::string& ssid, WriteThrough writeThrough)
{
    around.done.push_back("ssid " + ssid + (writeThrough == WriteThrough::On ? " stored" : ""));
    return around.operation;
}

int wifi_get_enabled()
{
    return around.on ? 1 : 0;
}

int wifi_get_mode(WifiMode& mode)
{
    mode = around.mode;
    return around.modeReadable;
}

int32_t hostapd_get_ssid(std::string& ssid)
{
    ssid = "left over";
    return around.hostapdReadable;
}

int32_t hostapd_get_frequency(std::string& frequency)
{
    frequency = "5";
    return 1;
}

int32_t hostapd_get_num_connected_clients(uint32_t& count)
{
    count = 7;
    return around.hostapdReadable;
}

int wpa_supplicant_scan()
{
    return around.scan;
}

int wpa_supplicant_add_network(const std::string&, const std::string&, std::string&)
{
    return around.addNetwork;
}

bool wpa_supplicant_select_network(const std::string&)
{
    return true;
}

bool wpa_supplicant_remove_network(const std::string&)
{
    return true;
}

bool wpa_supplicant_disconnect_network()
{
    return true;
}

bool wpa_supplicant_get_current_network(std::string&)
{
    return false;
}

std::string wpa_supplicant_get_ssid()
{
    return "net";
}

WpaSupplicantDbusListener* wpa_supplicant_get_listener()
{
    return nullptr;
}

int wpa_supplicant_get_access_points(AccessPoints& accessPoints)
{
    accessPoints.push_back({.path = "/1", .ssid = "net", .privacy = 1, .signal = -40, .wpa_psk = true});
    return around.accessPoints;
}

int utils_get_mac_address(const char*, char* buffer)
{
    std::strcpy(buffer, "half an add");
    return 0;
}

int utils_get_ip_address(const char*, char* buffer)
{
    std::strcpy(buffer, "half an add");
    return 0;
}

bool utils_get_signal_strength(char*)
{
    return around.power;
}

bool utils_flush_ip()
{
    return true;
}

sd_bus* service_bus()
{
    return nullptr;
}

void emit_property_changed(const char* property)
{
    around.done.push_back(std::string("announced ") + property);
}

int KorrinInfo::ThisKorrin::RadioType()
{
    return around.radioType;
}

// Messages that can not be read

TEST_F(NetworkInterface, AnUnreadableStateIsAnsweredByTheSetterItself)
{
    expect_refused(call_oddly("WiFiState"), kFailed, "Failed to parse msg");
    EXPECT_EQ(oddResult, 1); // what sending the reply returned
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_ERR, "set_wifi_state_dbus: Failed to parse msg."}));
    EXPECT_THAT(around.done, IsEmpty());
}

TEST_F(NetworkInterface, AnUnreadableModeIsRefused)
{
    expect_refused(call_oddly("Mode"), kDenied, "Operation not permitted");
    EXPECT_EQ(oddResult, -1);
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_INFO, "[Main] 'ChangeMode' d-bus method called"},
                            LogLine{LOG_ERR, "[Main] change_wifi_mode_dbus: Failed to parse d-bus message"}));
    EXPECT_THAT(around.done, IsEmpty());
}

TEST_F(NetworkInterface, AnUnreadableFrequencyIsRefused)
{
    expect_refused(call_oddly("WiFiFrequency"), kDenied, "Operation not permitted");
    EXPECT_EQ(oddResult, -1);
    EXPECT_THAT(
        captured_log().lines(),
        ElementsAre(LogLine{LOG_INFO, "[Main] Set WiFi frequency called"},
                    LogLine{LOG_ERR, "[Main] set_wifi_frequency_dbus: Failed to parse dbus message"}));
    EXPECT_THAT(around.done, IsEmpty());
}

TEST_F(NetworkInterface, AnUnreadableSsidIsRefused)
{
    expect_refused(call_oddly("SSID"), kDenied, "Operation not permitted");
    EXPECT_EQ(oddResult, -1);
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_INFO, "Set 'SSID' property"},
                            LogLine{LOG_ERR, "[Main] set_wifi_ssid_dbus: Failed to parse d-bus message"}));
    EXPECT_THAT(around.done, IsEmpty());
}

TEST_F(NetworkInterface, UnreadableArgumentsOfConnectAreRefusedAfterTheRadioHasBeenLookedAt)
{
    around.mode = WifiMode::Client;
    expect_refused(call_oddly("Connect"), kFailed, "Failed to parse d-bus message");
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_INFO, "[Main] Connect to the AP"},
                            LogLine{LOG_ERR, "[Main] connect_to_ap: Failed to parse d-bus message"}));

    around.mode = WifiMode::Host;
    expect_refused(call_oddly("Connect"), kFailed, "WiFi is not in client mode");
}

// Setters

TEST_F(NetworkInterface, WritesReachTheirOperationWithWriteThrough)
{
    EXPECT_EQ(set("WiFiState", "u", 1U).error, "");
    EXPECT_EQ(set("Mode", "s", "Client").error, "");
    EXPECT_EQ(set("WiFiFrequency", "s", "5").error, "");
    EXPECT_EQ(set("SSID", "s", "kitchen").error, "");
    EXPECT_THAT(around.done,
                ElementsAre("state 1", "mode Client stored", "frequency 5 stored", "ssid kitchen stored"));
}

TEST_F(NetworkInterface, AnOperationThatFailsIsARefusal)
{
    around.operation = -1;
    expect_refused(set("WiFiState", "u", 1U), kDenied, "Operation not permitted");
    expect_refused(set("Mode", "s", "Client"), kDenied, "Operation not permitted");
    expect_refused(set("WiFiFrequency", "s", "5"), kDenied, "Operation not permitted");
    expect_refused(set("SSID", "s", "kitchen"), kDenied, "Operation not permitted");
}

// Methods: results of exactly 0

TEST_F(NetworkInterface, AScanThatCouldNotBeStartedIsRefused)
{
    around.on = false; // of no concern to a scan
    around.scan = 0;
    expect_refused(call("Scan", ""), kFailed, "Failed to start AP scan");
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_ERR, "[Main] scan_access_points: Failed to start AP scan"}));
}

TEST_F(NetworkInterface, ANetworkThatCouldNotBeAddedIsRefused)
{
    around.mode = WifiMode::Client;
    around.addNetwork = 0;
    expect_refused(call("Connect", "ss", "net", "secret12"), kFailed, "Failed to add network");
    EXPECT_EQ(captured_log().lines().back(),
              (LogLine{LOG_ERR, "[Main] connect_to_ap: Failed to add network to WPE supplicant"}));
}

// Getters

TEST_F(NetworkInterface, AnSsidThatHostapdCanNotTellIsEmpty)
{
    EXPECT_EQ(text("SSID"), "left over");
    around.hostapdReadable = 0;
    EXPECT_EQ(text("SSID"), "");
}

TEST_F(NetworkInterface, AStationCountThatFailsIsZeroWhateverWasCounted)
{
    around.hostapdReadable = 0;
    const CallResult result = get("WiFiConnectedClients");
    uint32_t count = 99;
    ASSERT_GE(sd_bus_message_read(result.reply.get(), "v", "u", &count), 0);
    EXPECT_EQ(count, 0U);
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_INFO, "Get 'WiFiConnectedClients' property"},
                            LogLine{LOG_ERR, "[Main] Reading 'WiFiFrequency' while not in Host mode"}));
}

TEST_F(NetworkInterface, AddressesThatCanNotBeReadAreEmptyWhateverWasFilledIn)
{
    EXPECT_EQ(text("IPAddress"), "");
    EXPECT_EQ(text("MacAddress"), "");
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_WARNING, "[Main] Interface does not have IP address"},
                            LogLine{LOG_WARNING, "[Main] Interface does not have MAC address"}));
}

TEST_F(NetworkInterface, APowerThatCanNotBeReadIsEmptyWithoutAMessage)
{
    around.power = false;
    EXPECT_EQ(text("WiFiSignal"), "");
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(NetworkInterface, AListOfAccessPointsThatFailsIsEmptyWhateverWasFound)
{
    around.mode = WifiMode::Client;
    around.accessPoints = 0;
    const CallResult result = get("AccessPoints");
    ASSERT_GE(sd_bus_message_enter_container(result.reply.get(), 'v', "a(siib)"), 0);
    ASSERT_GE(sd_bus_message_enter_container(result.reply.get(), 'a', "(siib)"), 0);
    EXPECT_EQ(sd_bus_message_at_end(result.reply.get(), 0), 1);
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(LogLine{LOG_ERR, "[Main]  Something went wrong with getting APs"}));
}

TEST_F(NetworkInterface, BandsOfARadioOfAnotherTypeAreAnError)
{
    for (const int type : {-1, 2, 5}) {
        around.radioType = type;
        expect_refused(get("WiFiAvailableFrequencies"), kDenied, "Operation not permitted");
    }
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

/** The members of one kind. */
std::vector<const sd_bus_vtable*> members(uint8_t type)
{
    std::vector<const sd_bus_vtable*> found;
    for (const sd_bus_vtable* entry = network_interface_vtable() + 1; entry->type != _SD_BUS_VTABLE_END;
         ++entry) {
        if (entry->type == type) {
            found.push_back(entry);
        }
    }
    return found;
}

TEST_F(NetworkInterface, EveryMethodTellsTheLibraryThatTheCallIsAnswered)
{
    for (const sd_bus_vtable* entry : members(_SD_BUS_VTABLE_METHOD)) {
        oddResult = 0;
        method = entry->x.method.handler;
        pair.call(kOddPath, kOddInterface, "Method", "");
        EXPECT_EQ(oddResult, 1) << entry->x.method.member;
    }
}

TEST_F(NetworkInterface, EveryGetterTellsThatTheReplyDoesNotTakeItsValue)
{
    sd_bus_message* created = nullptr;
    ASSERT_GE(sd_bus_message_new_signal(pair.service(), &created, kOddPath, kOddInterface, "Full"), 0);
    const MessagePtr full(created);
    ASSERT_GE(sd_bus_message_seal(full.get(), 1, 0), 0);

    auto getters = members(_SD_BUS_VTABLE_PROPERTY);
    std::ranges::copy(members(_SD_BUS_VTABLE_WRITABLE_PROPERTY), std::back_inserter(getters));
    EXPECT_EQ(getters.size(), 13U);
    for (const sd_bus_vtable* entry : getters) {
        EXPECT_LT(entry->x.property.get(pair.service(), kNetworkPath, kNetworkInterface,
                                        entry->x.property.member, full.get(), nullptr, nullptr),
                  0)
            << entry->x.property.member;
    }
    around.radioType = 0;
    EXPECT_LT(
        get_wifi_available_frequencies(nullptr, nullptr, nullptr, nullptr, full.get(), nullptr, nullptr), 0);
    for (const auto& [readable, mode] : {std::pair(1, WifiMode::Client), std::pair(0, WifiMode::Host)}) {
        around.modeReadable = readable;
        around.mode = mode;
        EXPECT_LT(get_wifi_mode(nullptr, nullptr, nullptr, nullptr, full.get(), nullptr, nullptr), 0);
    }
}

TEST_F(NetworkInterface, EveryMemberHasTheFlagsOfItsKindAndNoOther)
{
    int members = 0;
    for (const sd_bus_vtable* entry = network_interface_vtable() + 1; entry->type != _SD_BUS_VTABLE_END;
         ++entry) {
        uint64_t expected = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;
        if (entry->type == _SD_BUS_VTABLE_METHOD) {
            expected = SD_BUS_VTABLE_METHOD_NO_REPLY;
        } else if (entry->type == _SD_BUS_VTABLE_SIGNAL) {
            expected = 0;
        }
        EXPECT_EQ(static_cast<uint64_t>(entry->flags), expected) << "member " << members;
        ++members;
    }
    EXPECT_EQ(members, 17);
}
