// Following the settings daemon when connecting and registering yield any result, positive ones included: the
// D-Bus helper's listener is replaced.

#include "config/settings_client.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/captured_log.hpp"

using Settingsd::SettingsDaemonDbusHandler;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::captured_log;
using testing_support::error;
using testing_support::LogLine;

namespace {

int connectResult = 0;
int listenResult = 0;
std::vector<std::string> calls;

const char* const kListenName = "int32_t Settingsd::SettingsDaemonDbusHandler::Listen()";

const LogLine kNotConnected = error(std::string(kListenName) + ": Failed to connect to dbus");
const LogLine kNotRegistered =
    error(std::string(kListenName) + ": Failed to register PropertiesChanged signal");
const LogLine kNotListening = error("LibDbusHelper::Storage: Failed to init signal listeners");

/** What Listen() returns when the helper's two calls return these numbers. */
int32_t listen_with(int connect, int listen)
{
    connectResult = connect;
    listenResult = listen;
    calls.clear();
    captured_log().clear();
    SettingsDaemonDbusHandler client(nullptr);
    return client.Listen();
}

} // namespace

namespace DbusHelper {

struct DbusConnector::State
{
};

DbusConnector::DbusConnector(sd_event*, BusType)
{
}
DbusConnector::~DbusConnector() = default;

int DbusConnector::Connect()
{
    calls.emplace_back("Connect");
    return connectResult;
}

void DbusConnector::Disconnect()
{
    calls.emplace_back("Disconnect");
}

DbusListener::DbusListener(sd_event* event) : DbusConnector(event, BusType::User)
{
}
DbusListener::~DbusListener() = default;

int DbusListener::ListenSignal(const std::string& sender, const std::string& path,
                               const std::string& interface, const std::string& member, Callback callback,
                               void* userdata)
{
    calls.push_back("ListenSignal '" + sender + "' '" + path + "' '" + interface + "' '" + member + "'");
    EXPECT_EQ(callback, &SettingsDaemonDbusHandler::PropertiesChanged);
    EXPECT_NE(userdata, nullptr);
    return listenResult;
}

} // namespace DbusHelper

namespace {

const char* const kRegistration =
    "ListenSignal 'com.vantora.common.Settings1' '' 'org.freedesktop.DBus.Properties' 'PropertiesChanged'";

TEST(Listen, FollowsEveryObjectOfTheSettingsDaemon)
{
    EXPECT_EQ(listen_with(0, 0), 0);
    EXPECT_THAT(calls, ElementsAre("Connect", kRegistration));
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST(Listen, StopsWhenConnectingFails)
{
    EXPECT_EQ(listen_with(-111, 0), -111);
    EXPECT_THAT(calls, ElementsAre("Connect"));
    EXPECT_THAT(captured_log().lines(), ElementsAre(kNotConnected));
}

TEST(Listen, DisconnectsWhenRegisteringFails)
{
    EXPECT_EQ(listen_with(0, -22), -22);
    EXPECT_THAT(calls, ElementsAre("Connect", kRegistration, "Disconnect"));
    EXPECT_THAT(captured_log().lines(), ElementsAre(kNotRegistered, kNotListening));
}

TEST(Listen, TakesAPositiveResultOfConnectingForAFailure)
{
    EXPECT_EQ(listen_with(1, 0), 1);
    EXPECT_THAT(calls, ElementsAre("Connect", kRegistration, "Disconnect"));
    EXPECT_THAT(captured_log().lines(), ElementsAre(kNotListening));
}

TEST(Listen, TakesAPositiveResultOfRegisteringForAFailure)
{
    EXPECT_EQ(listen_with(0, 2), 2);
    EXPECT_THAT(calls, ElementsAre("Connect", kRegistration, "Disconnect"));
    EXPECT_THAT(captured_log().lines(), ElementsAre(kNotListening));
}

TEST(Listen, CombinesBothResultsBitByBit)
{
    EXPECT_EQ(listen_with(1, 2), 3);
    EXPECT_THAT(captured_log().lines(), ElementsAre(kNotListening));
    EXPECT_EQ(listen_with(1, -22), 1 | -22);
    EXPECT_THAT(captured_log().lines(), ElementsAre(kNotRegistered, kNotListening));
}

} // namespace
