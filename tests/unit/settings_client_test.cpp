#include "config/settings_client.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <any>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <syslog.h>
#include <systemd/sd-bus.h>

#include "support/captured_log.hpp"
#include "support/event_loop.hpp"
#include "support/fake_settings_daemon.hpp"
#include "support/private_bus.hpp"

namespace {

using Settingsd::PropertyMap;
using Settingsd::SettingsDaemonDbusHandler;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using testing_support::BusRole;
using testing_support::captured_log;
using testing_support::error;
using testing_support::EventLoop;
using testing_support::FakeSettingsDaemon;
using testing_support::info;
using testing_support::LogLine;
using testing_support::PrivateBus;

const std::string kService = "com.vantora.common.Settings1";
const std::string kNetworkPath = "/com/vantora/common/Settings1/network";

const std::string kGetBool =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::GetSetting(const string&, const string&, T&) [with T = bool; int32_t = int; std::__cxx11::string = std::__cxx11::basic_string<char>]";
const std::string kGetString =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::GetSetting(const string&, const string&, T&) [with T = std::__cxx11::basic_string<char>; int32_t = int; std::__cxx11::string = std::__cxx11::basic_string<char>]";
const std::string kSetBool =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::SetSetting(const string&, const string&, T) [with T = bool; int32_t = int; std::__cxx11::string = std::__cxx11::basic_string<char>]";
const std::string kSetString =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::SetSetting(const string&, const string&, T) [with T = std::__cxx11::basic_string<char>; int32_t = int; std::__cxx11::string = std::__cxx11::basic_string<char>]";
const std::string kResetToDefaults =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::ResetToDefaults(bool)";
const std::string kResetSection =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::ResetSection(const string&)";
const std::string kResetSetting =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::ResetSetting(const string&, const string&)";
const std::string kListen = "int32_t Settingsd::SettingsDaemonDbusHandler::Listen()";
const std::string kPropertiesChanged =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::PropertiesChanged(sd_bus_message*, void*, sd_bus_error*)";

class SettingsClient : public testing::Test
{
protected:
    SettingsClient() { captured_log().clear(); }

    PrivateBus bus{BusRole::User};
    FakeSettingsDaemon daemon{bus.connect()};
};

// Single settings

TEST_F(SettingsClient, ReadsASettingAsAPropertyOfItsSection)
{
    daemon.answer("Get", [](sd_bus_message* reply) { sd_bus_message_append(reply, "v", "b", 1); });
    bool enabled = false;
    EXPECT_GE(SettingsDaemonDbusHandler::GetSetting("network", "enabled", enabled), 0);
    EXPECT_TRUE(enabled);
    daemon.answer("Get", [](sd_bus_message* reply) { sd_bus_message_append(reply, "v", "s", "Client"); });
    std::string mode;
    EXPECT_GE(SettingsDaemonDbusHandler::GetSetting("network", "mode", mode), 0);
    EXPECT_EQ(mode, "Client");
    EXPECT_THAT(
        daemon.calls(),
        ElementsAre(kNetworkPath + " org.freedesktop.DBus.Properties.Get('" + kService + "', 'enabled')",
                    kNetworkPath + " org.freedesktop.DBus.Properties.Get('" + kService + "', 'mode')"));
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(SettingsClient, AReadThatFailsLeavesTheValueAndLogsTheSettingAndTheLibrarysText)
{
    daemon.refuse("Get", "org.freedesktop.DBus.Error.UnknownProperty", "no such setting");
    bool enabled = true;
    std::string mode = "untouched";
    EXPECT_LT(SettingsDaemonDbusHandler::GetSetting("network", "enabled", enabled), 0);
    EXPECT_LT(SettingsDaemonDbusHandler::GetSetting("network", "mode", mode), 0);
    EXPECT_TRUE(enabled);
    EXPECT_EQ(mode, "untouched");
    EXPECT_THAT(
        captured_log().lines(),
        ElementsAre(error(kGetBool + ": ERROR sdbus_utils::GetProperty enabled failed no such setting"),
                    error(kGetString + ": ERROR sdbus_utils::GetProperty mode failed no such setting")));
}

TEST_F(SettingsClient, WritesASettingAsAPropertyOfItsSection)
{
    EXPECT_GE(SettingsDaemonDbusHandler::SetSetting<bool>("network", "enabled", true), 0);
    EXPECT_GE(SettingsDaemonDbusHandler::SetSetting<std::string>("device", "deviceName", "Cellar"), 0);
    EXPECT_THAT(daemon.calls(), ElementsAre(kNetworkPath + " org.freedesktop.DBus.Properties.Set('" +
                                                kService + "', 'enabled', <b true>)",
                                            "/com/vantora/common/Settings1/device "
                                            "org.freedesktop.DBus.Properties.Set('" +
                                                kService + "', 'deviceName', <s 'Cellar'>)"));
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(SettingsClient, AWriteThatFailsLogsTheSettingAndTheLibrarysText)
{
    daemon.refuse("Set", "org.freedesktop.DBus.Error.Failed", "disk full");
    EXPECT_LT(SettingsDaemonDbusHandler::SetSetting<bool>("network", "enabled", true), 0);
    EXPECT_LT(SettingsDaemonDbusHandler::SetSetting<std::string>("network", "mode", "Host"), 0);
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(error(kSetBool + ": ERROR sdbus_utils::SetProperty enabled failed disk full"),
                            error(kSetString + ": ERROR sdbus_utils::SetProperty mode failed disk full")));
}

// Resets and whole sections

TEST_F(SettingsClient, ResetsGoToTheBaseObjectWithTheirArguments)
{
    EXPECT_GE(SettingsDaemonDbusHandler::ResetToDefaults(true), 0);
    EXPECT_GE(SettingsDaemonDbusHandler::ResetToDefaults(false), 0);
    EXPECT_GE(SettingsDaemonDbusHandler::ResetSection("network"), 0);
    EXPECT_GE(SettingsDaemonDbusHandler::ResetSetting("network", "mode"), 0);
    const std::string object = "/com/vantora/common/Settings1 com.vantora.common.Settings1.";
    EXPECT_THAT(daemon.calls(),
                ElementsAre(object + "ResetToDefaults(true)", object + "ResetToDefaults(false)",
                            object + "ResetSection('network')", object + "ResetSetting('network', 'mode')"));
    EXPECT_THAT(captured_log().lines(), ElementsAre(info(kResetToDefaults), info(kResetToDefaults),
                                                    info(kResetSection), info(kResetSetting)));
}

TEST_F(SettingsClient, AResetThatIsRefusedReturnsAndLogsTheCode)
{
    for (const char* method : {"ResetToDefaults", "ResetSection", "ResetSetting"}) {
        daemon.refuse(method, "org.freedesktop.DBus.Error.AccessDenied", "no");
    }
    EXPECT_EQ(SettingsDaemonDbusHandler::ResetToDefaults(true), -EACCES);
    EXPECT_EQ(SettingsDaemonDbusHandler::ResetSection("network"), -EACCES);
    EXPECT_EQ(SettingsDaemonDbusHandler::ResetSetting("network", "mode"), -EACCES);
    const std::string failure = ":sd_bus_call_method call failed (r = -13)";
    EXPECT_THAT(captured_log().lines(), ElementsAre(info(kResetToDefaults), error(kResetToDefaults + failure),
                                                    info(kResetSection), error(kResetSection + failure),
                                                    info(kResetSetting), error(kResetSetting + failure)));
}

TEST_F(SettingsClient, AResetWithoutABusReturnsTheCodeAndLogsNothingFurther)
{
    bus.stop();
    EXPECT_LT(SettingsDaemonDbusHandler::ResetSection("network"), 0);
    EXPECT_THAT(captured_log().lines(), ElementsAre(info(kResetSection)));
}

TEST_F(SettingsClient, ReadsAWholeSectionWithTypes)
{
    daemon.answer("GetAll", [](sd_bus_message* reply) {
        sd_bus_message_append(reply, "a{sv}", 2, "enabled", "b", 1, "mode", "s", "Host");
    });
    PropertyMap settings;
    EXPECT_GE(SettingsDaemonDbusHandler::GetSection("network", settings), 0);
    ASSERT_EQ(settings.size(), 2U);
    EXPECT_EQ(settings["enabled"].first, "b");
    EXPECT_TRUE(std::any_cast<bool>(settings["enabled"].second));
    EXPECT_EQ(std::any_cast<std::string>(settings["mode"].second), "Host");
    EXPECT_THAT(daemon.calls(),
                ElementsAre(kNetworkPath + " org.freedesktop.DBus.Properties.GetAll('" + kService + "')"));
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(SettingsClient, AWholeSectionThatCanNotBeReadIsReportedByCodeOnly)
{
    daemon.refuse("GetAll", "org.freedesktop.DBus.Error.UnknownObject", "none");
    PropertyMap settings;
    EXPECT_LT(SettingsDaemonDbusHandler::GetSection("nowhere", settings), 0);
    bus.stop();
    EXPECT_LT(SettingsDaemonDbusHandler::GetSection("network", settings), 0);
    EXPECT_THAT(settings, IsEmpty());
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

// Notifications

/** Notes what the client's signals carry, in the order of their emission. */
class Notifications : public SettingsClient
{
protected:
    Notifications()
    {
        client.allSectionsChanged.connect([this](const std::string& section, const PropertyMap& settings) {
            heard.push_back("all: " + section + text_of(settings));
        });
        for (const char* section : {"network", "device", "development"}) {
            client.section_signal(section)->connect([this, section](const PropertyMap& settings) {
                heard.push_back(section + text_of(settings));
            });
        }
    }

    static std::string text_of(const PropertyMap& settings)
    {
        std::string text;
        for (const auto& [name, typed] : settings) {
            text += " " + name + ":" + typed.first;
            if (typed.first == "b") {
                text += std::any_cast<bool>(typed.second) ? "=true" : "=false";
            } else if (typed.first == "s") {
                text += "=" + std::any_cast<std::string>(typed.second);
            }
        }
        return text;
    }

    /** A notification as it arrives, from any path; `fill` writes its body. */
    MessagePtr signal_from(const char* path, const std::function<void(sd_bus_message*)>& fill) const
    {
        sd_bus_message* message = nullptr;
        EXPECT_GE(sd_bus_message_new_signal(connection.get(), &message, path,
                                            "org.freedesktop.DBus.Properties", "PropertiesChanged"),
                  0);
        return finished(message, fill);
    }

    static MessagePtr finished(sd_bus_message* message, const std::function<void(sd_bus_message*)>& fill)
    {
        fill(message);
        EXPECT_GE(sd_bus_message_seal(message, 1, 0), 0);
        EXPECT_GE(sd_bus_message_rewind(message, 1), 0);
        return MessagePtr(message);
    }

    int handle(const MessagePtr& message)
    {
        return SettingsDaemonDbusHandler::PropertiesChanged(message.get(), &client, nullptr);
    }

    EventLoop loop;
    SettingsDaemonDbusHandler client{loop.get()};
    BusPtr connection = bus.connect();
    std::vector<std::string> heard;
};

void fill_enabled(sd_bus_message* message)
{
    sd_bus_message_append(message, "sa{sv}as", "com.vantora.common.Settings1", 1, "enabled", "b", 1, 0);
}

TEST_F(Notifications, AreEmittedForAllSectionsAndThenForTheirOwn)
{
    EXPECT_EQ(handle(signal_from(kNetworkPath.c_str(), fill_enabled)), 0);
    EXPECT_THAT(heard, ElementsAre("all: network enabled:b=true", "network enabled:b=true"));
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(Notifications, CarryAllChangedSettingsOfTheSectionTogether)
{
    EXPECT_EQ(handle(signal_from("/com/vantora/common/Settings1/device",
                                 [](sd_bus_message* message) {
                                     sd_bus_message_append(message, "sa{sv}as", "", 2, "other", "b", 0,
                                                           "deviceName", "s", "Attic", 1, "gone");
                                 })),
              0);
    EXPECT_THAT(heard, ElementsAre("all: device deviceName:s=Attic other:b=false",
                                   "device deviceName:s=Attic other:b=false"));
}

TEST_F(Notifications, OfASectionNobodyKnowsReachOnlyTheSignalForAll)
{
    EXPECT_EQ(handle(signal_from("/com/vantora/common/Settings1/weather", fill_enabled)), 0);
    EXPECT_THAT(heard, ElementsAre("all: weather enabled:b=true"));
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(Notifications, AreToldApartByTheLastPartOfThePathOnly)
{
    EXPECT_EQ(handle(signal_from("/network", fill_enabled)), 0);
    EXPECT_EQ(handle(signal_from("/some/where/else/network", fill_enabled)), 0);
    EXPECT_EQ(handle(signal_from("/com/vantora/common/Settings1/network/more", fill_enabled)), 0);
    EXPECT_THAT(heard, ElementsAre("all: network enabled:b=true", "network enabled:b=true",
                                   "all: network enabled:b=true", "network enabled:b=true",
                                   "all: more enabled:b=true"));
}

TEST_F(Notifications, WithoutASlashInThePathAreRejected)
{
    sd_bus_message* message = nullptr;
    ASSERT_GE(sd_bus_message_new(connection.get(), &message, SD_BUS_MESSAGE_SIGNAL), 0);
    EXPECT_EQ(handle(finished(message, fill_enabled)), -1);
    EXPECT_THAT(heard, IsEmpty());
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(error(kPropertiesChanged + ": Failed to find / in path")));
}

TEST_F(Notifications, WithAPathThatEndsInASlashAreRejected)
{
    EXPECT_EQ(handle(signal_from("/", fill_enabled)), -1);
    EXPECT_THAT(heard, IsEmpty());
    EXPECT_THAT(captured_log().lines(), ElementsAre(error(kPropertiesChanged + ": Mallformed path string")));
}

TEST_F(Notifications, ThatDoNotBeginWithAnInterfaceNameAreRejected)
{
    EXPECT_EQ(handle(signal_from(kNetworkPath.c_str(),
                                 [](sd_bus_message* message) { sd_bus_message_append(message, "i", 1); })),
              -1);
    EXPECT_EQ(handle(signal_from(kNetworkPath.c_str(), [](sd_bus_message*) {})), -1);
    EXPECT_THAT(heard, IsEmpty());
    const LogLine rejection = error(kPropertiesChanged + ": Failed to skip interface string");
    EXPECT_THAT(captured_log().lines(), ElementsAre(rejection, rejection));
}

TEST_F(Notifications, WithoutAMapOfSettingsAreRejectedWithTheParsersCode)
{
    EXPECT_EQ(
        handle(signal_from(kNetworkPath.c_str(),
                           [](sd_bus_message* message) { sd_bus_message_append(message, "ss", "", ""); })),
        -1);
    EXPECT_THAT(heard, IsEmpty());
    ASSERT_EQ(captured_log().lines().size(), 1U);
    const LogLine line = captured_log().lines().front();
    EXPECT_EQ(line.priority, LOG_ERR);
    const std::string rejection = kPropertiesChanged + ": ParsePropertiesWithType failed:";
    EXPECT_THAT(line.text, StartsWith(rejection + "-"));
    EXPECT_LT(std::stoi(line.text.substr(rejection.size())), 0);
}

TEST_F(Notifications, NeverFailForTheTypesOfOtherSettings)
{
    EXPECT_EQ(handle(signal_from(kNetworkPath.c_str(),
                                 [](sd_bus_message* message) {
                                     sd_bus_message_append(message, "s", "");
                                     sd_bus_message_open_container(message, 'a', "{sv}");
                                     sd_bus_message_append(message, "{sv}", "double", "d", 1.5);
                                     sd_bus_message_append(message, "{sv}", "struct", "(si)", "x", 1);
                                     sd_bus_message_append(message, "{sv}", "map", "a{is}", 1, 7, "x");
                                     sd_bus_message_append(message, "{sv}", "nested", "v", "v", "as", 1, "x");
                                     sd_bus_message_append(message, "{sv}", "descriptor", "h", 0);
                                     sd_bus_message_append(message, "{sv}", "zmode", "s", "Host");
                                     sd_bus_message_close_container(message);
                                     sd_bus_message_append(message, "as", 0);
                                 })),
              0);
    ASSERT_EQ(heard.size(), 2U);
    EXPECT_THAT(heard.front(), StartsWith("all: network double:d"));
    EXPECT_THAT(heard.back(), testing::EndsWith("zmode:s=Host"));
}

TEST_F(Notifications, RunTheirSlotsInTheOrderOfConnection)
{
    SettingsDaemonDbusHandler other(loop.get());
    std::vector<int> order;
    other.section_signal("network")->connect([&](const PropertyMap&) { order.push_back(1); });
    other.section_signal("network")->connect([&](const PropertyMap&) { order.push_back(2); });
    const MessagePtr message = signal_from(kNetworkPath.c_str(), fill_enabled);
    EXPECT_EQ(SettingsDaemonDbusHandler::PropertiesChanged(message.get(), &other, nullptr), 0);
    EXPECT_THAT(order, ElementsAre(1, 2));
}

TEST_F(Notifications, AreHeardFromTheBusOnceListening)
{
    ASSERT_EQ(client.Listen(), 0);
    daemon.emit(kNetworkPath.c_str(), fill_enabled);
    ASSERT_TRUE(loop.run_until([&] { return heard.size() >= 2; }));
    EXPECT_THAT(heard, ElementsAre("all: network enabled:b=true", "network enabled:b=true"));
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(Notifications, AreNotFollowedWithoutABus)
{
    bus.stop();
    EXPECT_LT(client.Listen(), 0);
    EXPECT_THAT(captured_log().lines(), ElementsAre(error(kListen + ": Failed to connect to dbus")));
}

TEST(Sections, AreTwentyNineFromTheFirstToTheLastAndThoseInUseAreAmongThem)
{
    EXPECT_EQ(Settingsd::kSectionCount, 29U);
    EventLoop loop;
    SettingsDaemonDbusHandler client(loop.get());
    for (const char* section : {"accessibility", "development", "device", "network", "update"}) {
        EXPECT_NE(client.section_signal(section), nullptr) << section;
    }
    for (const char* section : {"", "Network", "networ", "network2", "Settings1"}) {
        EXPECT_EQ(client.section_signal(section), nullptr) << section;
    }
}

} // namespace
