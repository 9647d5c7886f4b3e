// What people read in the client's tables: the words of each field, and what is coloured in which way.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "client/networks.hpp"
#include "client/properties.hpp"
#include "client/status.hpp"
#include "client/terminal.hpp"
#include "client/values.hpp"

namespace {

using client::field_style;
using client::field_text;
using client::Json;
using client::Style;
using client::Terminal;

const Terminal kPlain(false, false);
const Terminal kColoured(true, false);

/** A network's row on a terminal with colours; its bars begin it, with their colour. */
std::string row_of(const Json& network)
{
    return client::networks_table(Json::array({network}), kColoured).lines().at(1);
}

TEST(ClientNetworksTable, ColoursTheBarsByTheirNumber)
{
    const auto row = [](int dbm) { return row_of(client::network_value("n", true, dbm, true)); };
    EXPECT_EQ(row(-55), "\033[32m####\033[0m    -55  WPA-PSK   n");
    EXPECT_EQ(row(-67), "\033[32m###.\033[0m    -67  WPA-PSK   n");
    EXPECT_EQ(row(-68), "##..    -68  WPA-PSK   n");
    EXPECT_EQ(row(-85), "#...    -85  WPA-PSK   n");
    EXPECT_EQ(row(-86), "\033[31m....\033[0m    -86  WPA-PSK   n");
}

TEST(ClientNetworksTable, ShowsFaintlyWhatThisDeviceCannotJoin)
{
    EXPECT_EQ(row_of(client::network_value("n", true, -50, false)), "\033[2m####\033[0m    -50  other     n");
    EXPECT_EQ(row_of(client::network_value("n", false, -50, false)),
              "\033[32m####\033[0m    -50  open      n");
}

TEST(ClientNetworksTable, MarksTheNetworkThatIsJoined)
{
    Json network = client::network_value("n", true, -70, true);
    network["joined"] = true;
    EXPECT_EQ(row_of(network), "##..    -70  WPA-PSK   n        \033[32m(joined)\033[0m");
    network["joined"] = false;
    EXPECT_EQ(row_of(network), "##..    -70  WPA-PSK   n");
}

TEST(ClientNetworks, NoneIsMarkedWhereTheNameFitsSeveral)
{
    Json networks = Json::array(
        {client::network_value("a=1", true, -50, true), client::network_value("a=2", true, -50, true)});
    client::mark_joined(networks, "a");
    EXPECT_EQ(networks[0]["joined"], false);
    EXPECT_EQ(networks[1]["joined"], false);
}

TEST(ClientNetworks, ANameIsSpelledByteByByte)
{
    EXPECT_EQ(client::station_spelling("\x1f \x20~\x7e\x7f\x80"), "\\x1f  ~~\\x7f\\x80");
    EXPECT_EQ(client::station_spelling(""), "");
}

TEST(ClientNetworks, AreFoundByTheirWholeName)
{
    const Json networks = Json::array(
        {client::network_value("home", true, -50, true), client::network_value("homes", true, -60, true)});
    ASSERT_NE(client::find_network(networks, "homes"), nullptr);
    EXPECT_EQ((*client::find_network(networks, "homes"))["signal"], -60);
    EXPECT_EQ(client::find_network(networks, "hom"), nullptr);
    EXPECT_EQ(client::find_network(Json::array(), "home"), nullptr);
}

TEST(ClientStatusTable, FieldsHaveTheirWords)
{
    struct Field
    {
        const char* name;
        Json value;
        const char* text;
    };
    const std::vector<Field> fields = {
        {"mode", "Host", "Host (access point)"},
        {"mode", "Client", "Client (station)"},
        {"mode", "Mesh", "Mesh"},
        {"ssid", "Host", "Host"},
        {"client_ssid", "Client", "Client"},
        {"band", "2.4", "2.4 GHz"},
        {"band", "", "-"},
        {"ssid", "2.4", "2.4"},
        {"client_state", "completed", "completed (connected)"},
        {"client_state", "odd", "odd"},
        {"client_state", "", "nothing heard yet"},
        {"ssid", "completed", "completed"},
        {"transmit_power", "txpower 20.00 dB", "20.00 dB"},
        {"transmit_power", "20.00 dB", "20.00 dB"},
        {"ssid", "txpower 1", "txpower 1"},
        {"access_point_ready", true, "yes"},
        {"access_point_ready", false, "not heard of"},
        {"other", true, "yes"},
        {"other", false, "no"},
        {"stations", 3U, "3"},
        {"bands", Json::array({"5", "2.4"}), "5, 2.4"},
        {"bands", Json::array(), ""},
        {"ssid", nullptr, "?"},
        {"ssid", "a\033b", "a\\x1bb"},
        {"band", "\033", "\\x1b GHz"},
        {"transmit_power", "txpower \033", "\\x1b"},
    };
    for (const Field& field : fields) {
        EXPECT_EQ(field_text(field.name, field.value), field.text) << field.name << " " << field.value;
    }
}

TEST(ClientStatusTable, FieldsAreColouredByWhatTheySay)
{
    for (const Json& value : {Json("on"), Json("completed"), Json(true)}) {
        EXPECT_EQ(field_style(value), Style::Good) << value;
    }
    for (const Json& value : {Json("off"), Json("failed")}) {
        EXPECT_EQ(field_style(value), Style::Bad) << value;
    }
    for (const Json& value : {Json(false), Json(""), Json("scanning"), Json(1U), Json()}) {
        EXPECT_EQ(field_style(value), Style::Plain) << value;
    }
}

TEST(ClientStatusTable, ShowsWhatSaysSomethingInThisMode)
{
    const auto labels = [](const char* mode, const Terminal& terminal) {
        std::string all;
        for (const std::string& line :
             client::status_table(client::status_fields({{"Mode", mode}}), terminal).lines()) {
            all += line.substr(0, line.find("  ")) + "|";
        }
        return all;
    };
    EXPECT_EQ(labels("Host", kPlain),
              "Radio|Mode|SSID|Band|Bands|On the air|Stations|Address|MAC address|Transmit power|");
    EXPECT_EQ(labels("Client", kPlain), "Radio|Mode|Bands|Network|State|Address|MAC address|Transmit power|");
    EXPECT_EQ(labels("", kPlain), "Radio|Mode|Bands|Address|MAC address|Transmit power|");
}

TEST(ClientStatusTable, HasColoursOnATerminalThatKnowsThem)
{
    const Json fields = client::status_fields({{"Mode", "Client"}, {"WiFiState", 0U}});
    EXPECT_EQ(client::status_table(fields, kColoured).lines().at(0),
              "\033[1mRadio\033[0m           \033[31moff\033[0m");
    EXPECT_EQ(client::status_table(fields, kPlain).lines().at(0), "Radio           off");
}

TEST(ClientProperties, HaveTheTypeThatTheInterfaceStates)
{
    const std::vector<Json> values = {Json("text"), Json(1U), Json(true), Json::array({"text"}),
                                      Json::array({Json::object()})};
    const std::vector<std::vector<const char*>> names = {
        {"Mode", "SSID", "ClientSSID", "MacAddress"},
        {"WiFiState", "WiFiConnectedClients"},
        {"WiFiAccessPointInitialised"},
        {"WiFiAvailableFrequencies"},
        {"AccessPoints"},
    };
    for (std::size_t type = 0; type < names.size(); ++type) {
        for (const char* name : names[type]) {
            for (std::size_t value = 0; value < values.size(); ++value) {
                EXPECT_EQ(client::fits(name, values[value]), type == value) << name << " " << values[value];
            }
        }
    }
    EXPECT_FALSE(client::fits("WiFiAvailableFrequencies", Json::array({"5", 2})));
    EXPECT_FALSE(client::fits("WiFiState", -1)) << "a number below zero";
    EXPECT_TRUE(client::fits("Unheard", Json()));
}

} // namespace
