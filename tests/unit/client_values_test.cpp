#include "client/values.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>

#include <sys/socket.h>

#include "client/properties.hpp"
#include "support/unique_fd.hpp"

namespace {

using client::Json;
using client::read_dictionary;
using client::read_value;

struct Unref
{
    void operator()(sd_bus* bus) const { sd_bus_unref(bus); }
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using BusPtr = std::unique_ptr<sd_bus, Unref>;
using MessagePtr = std::unique_ptr<sd_bus_message, Unref>;

/** A connection to nowhere: enough to make messages. */
class ClientValues : public testing::Test
{
protected:
    ClientValues()
    {
        sd_bus* bus = nullptr;
        sd_bus_new(&bus);
        connection.reset(bus);
        std::array<int, 2> ends{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        sd_bus_set_fd(bus, ends[0], ends[0]); // closes it itself
        silentEnd = UniqueFd(ends[1]);
        EXPECT_GE(sd_bus_start(bus), 0);
        sd_bus_message* message = nullptr;
        EXPECT_GE(sd_bus_message_new_signal(bus, &message, "/x", "x.y", "Z"), 0);
        outgoing.reset(message);
    }

    /** The message as its receiver has it. */
    sd_bus_message* sealed()
    {
        EXPECT_GE(sd_bus_message_seal(outgoing.get(), 1, 0), 0);
        EXPECT_GE(sd_bus_message_rewind(outgoing.get(), 1), 0);
        return outgoing.get();
    }

    /** Reads one value; a text that must not be one when there is none. */
    Json read(sd_bus_message* message)
    {
        Json value = "untouched";
        EXPECT_EQ(read_value(message, value), 1);
        return value;
    }

    UniqueFd silentEnd;
    BusPtr connection;
    MessagePtr outgoing;
};

TEST_F(ClientValues, ListsOfTextsAreReadToTheirEndAndNoFurther)
{
    sd_bus_message_append(outgoing.get(), "asass", 2, "5", "2.4", 0, "behind");
    sd_bus_message* const message = sealed();
    EXPECT_EQ(read(message), Json({"5", "2.4"}));
    EXPECT_EQ(read(message), Json::array()) << "an empty list is a list";
    EXPECT_EQ(read(message), "behind");
}

TEST_F(ClientValues, ListsOfNetworksAreReadToTheirEndAndNoFurther)
{
    sd_bus_message_append(outgoing.get(), "a(siib)a(siib)s", 2, "home", 1, -48, 1, "free", 0, -90, 0, 0,
                          "behind");
    sd_bus_message* const message = sealed();
    const Json networks = read(message);
    ASSERT_EQ(networks.size(), 2U);
    EXPECT_EQ(networks[0], client::network_value("home", true, -48, true));
    EXPECT_EQ(networks[1], client::network_value("free", false, -90, false));
    EXPECT_EQ(read(message), Json::array()) << "an empty list is a list";
    EXPECT_EQ(read(message), "behind");
}

TEST_F(ClientValues, VariantsAndNumbersAreReadToTheirEnd)
{
    sd_bus_message_append(outgoing.get(), "vvvvbs", "u", 7U, "i", -7, "as", 1, "x", "b", 1, 0, "behind");
    sd_bus_message* const message = sealed();
    EXPECT_EQ(read(message), 7U);
    EXPECT_EQ(read(message), -7);
    EXPECT_EQ(read(message), Json({"x"}));
    EXPECT_EQ(read(message), true);
    EXPECT_EQ(read(message), false);
    EXPECT_EQ(read(message), "behind");
}

TEST_F(ClientValues, OtherTypesAndNothingAtAllAreErrors)
{
    sd_bus_message_append(outgoing.get(), "aid", 1, 7, 1.5);
    sd_bus_message* const message = sealed();
    Json value;
    for (const char* type : {"ai", "d"}) {
        EXPECT_LT(read_value(message, value), 0) << type;
        sd_bus_message_skip(message, type);
    }
    EXPECT_EQ(read_value(message, value), -ENXIO);
}

TEST_F(ClientValues, DictionariesKeepEveryEntry)
{
    sd_bus_message_append(outgoing.get(), "a{sv}s", 3, "Mode", "s", "Host", "Bands", "as", 0, "State", "u",
                          1U, "behind");
    sd_bus_message* const message = sealed();
    Json values;
    EXPECT_EQ(read_dictionary(message, values), 1);
    EXPECT_EQ(values, Json({{"Mode", "Host"}, {"Bands", Json::array()}, {"State", 1U}}));
    EXPECT_EQ(read(message), "behind");
}

TEST_F(ClientValues, OneEntryOfAnotherTypeMakesADictionaryUnreadable)
{
    sd_bus_message_append(outgoing.get(), "a{sv}", 2, "Mode", "s", "Host", "Odd", "d", 1.5);
    Json values;
    EXPECT_LT(read_dictionary(sealed(), values), 0);
}

TEST(ClientProperties, AValueFitsWhenItHasThePropertysType)
{
    EXPECT_TRUE(client::fits("Mode", "Host"));
    EXPECT_FALSE(client::fits("Mode", 1U));
    EXPECT_TRUE(client::fits("WiFiState", 1U));
    EXPECT_FALSE(client::fits("WiFiState", 1)) << "a signed number";
    EXPECT_FALSE(client::fits("WiFiState", true));
    EXPECT_TRUE(client::fits("WiFiAccessPointInitialised", false));
    EXPECT_FALSE(client::fits("WiFiAccessPointInitialised", 0U));
    EXPECT_TRUE(client::fits("WiFiAvailableFrequencies", Json::array()));
    EXPECT_TRUE(client::fits("WiFiAvailableFrequencies", Json({"5", "2.4"})));
    EXPECT_FALSE(client::fits("WiFiAvailableFrequencies", Json({"5", 2})));
    EXPECT_FALSE(client::fits("WiFiAvailableFrequencies", "5"));
    EXPECT_TRUE(client::fits("AccessPoints", Json::array()));
    EXPECT_TRUE(client::fits("AccessPoints", Json::array({client::network_value("x", true, -50, true)})));
    EXPECT_FALSE(client::fits("AccessPoints", Json({"x"})));
    EXPECT_TRUE(client::fits("Unheard", 1.5)) << "nobody here reads it";
}

} // namespace
