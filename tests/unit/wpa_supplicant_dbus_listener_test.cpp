#include "listeners/wpa_supplicant_dbus_listener.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <any>
#include <cerrno>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <syslog.h>
#include <unistd.h>

#include "support/captured_log.hpp"
#include "support/event_loop.hpp"
#include "support/private_bus.hpp"
#include "utils/dhcp_units.hpp"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;
using testing_support::captured_log;
using testing_support::EventLoop;
using testing_support::LogLine;
using testing_support::PrivateBus;

int dhcpRestarted = 1;
int matchesLeft = 100;

} // namespace

int dhcp_client_restart()
{
    return dhcpRestarted;
}
int dhcp_client_start()
{
    return 1;
}
int dhcp_client_stop()
{
    return 1;
}
int dhcp_server_start()
{
    return 1;
}
int dhcp_server_restart()
{
    return 1;
}
int dhcp_server_stop()
{
    return 1;
}

extern "C" int sd_bus_add_match_async(sd_bus* bus, sd_bus_slot** slot, const char* match,
                                      sd_bus_message_handler_t callback, sd_bus_message_handler_t installed,
                                      void* userdata)
{
    static auto* const kOriginal =
        reinterpret_cast<decltype(sd_bus_add_match_async)*>(dlsym(RTLD_NEXT, "sd_bus_add_match_async"));
    return matchesLeft-- > 0 ? kOriginal(bus, slot, match, callback, installed, userdata) : -ENOMEM;
}

extern "C" int sd_bus_add_match(sd_bus* bus, sd_bus_slot** slot, const char* match,
                                sd_bus_message_handler_t callback, void* userdata)
{
    static auto* const kOriginal =
        reinterpret_cast<decltype(sd_bus_add_match)*>(dlsym(RTLD_NEXT, "sd_bus_add_match"));
    const bool ofTheStation = std::string(match).find("fi.w1.wpa_supplicant1") != std::string::npos;
    return ofTheStation && matchesLeft-- <= 0 ? -ENOMEM : kOriginal(bus, slot, match, callback, userdata);
}

namespace {

class StationListener : public testing::Test
{
protected:
    void SetUp() override
    {
        dhcpRestarted = 1;
        matchesLeft = 100;
        connection = bus.connect();
        listener.stateChanged.connect([this](const std::string& state, const std::string& ssid) {
            heard.push_back(state + "/" + ssid);
        });
        listener.connectFailed.connect([this] { heard.emplace_back("connectFailed"); });
        listener.bssListChanged.connect([this](const std::vector<std::string>& paths) {
            heard.push_back(std::to_string(paths.size()) + " BSSs");
        });
        captured_log().clear();
    }

    /** A notification with the given "a{sv}", as sd-bus hands it to the callback. */
    template <typename... Arguments>
    int notify(unsigned count, Arguments... arguments)
    {
        sd_bus_message* created = nullptr;
        sd_bus_message_new_signal(connection.get(), &created, "/station", "fi.w1.wpa_supplicant1.Interface",
                                  "PropertiesChanged");
        const MessagePtr message(created);
        EXPECT_GE(sd_bus_message_append(message.get(), "a{sv}", count, arguments...), 0);
        EXPECT_GE(sd_bus_message_seal(message.get(), 1, 0), 0);
        return WpaSupplicantDbusListener::PropertyChangedCallback(message.get(), &listener, nullptr);
    }

    PrivateBus bus;
    BusPtr connection;
    EventLoop loop;
    WpaSupplicantDbusListener listener{loop.get()};
    std::vector<std::string> heard;
};

TEST_F(StationListener, ADhcpClientRestartedWithTheResult0IsWarnedOfAndTheStateGoesOn)
{
    dhcpRestarted = 0;
    EXPECT_EQ(notify(1, "State", "s", "completed"), 0);
    EXPECT_THAT(
        captured_log().lines(),
        ElementsAre(
            LogLine{LOG_INFO, "[WPA Supplicant] Properties changed"},
            LogLine{LOG_INFO, "[WPA Supplicant] State change: '' -> 'completed'"},
            LogLine{LOG_INFO, "[WPA Supplicant] Restarting udhcpc"},
            LogLine{LOG_WARNING, "[WPE supplicant] PropertyChangedCallback: Failed to restart UDHCPC"},
            LogLine{LOG_INFO, "StateChangeHandler: Emitting state change: state = completed ssid = "}));
    EXPECT_THAT(heard, ElementsAre("completed/"));
    dhcpRestarted = -1; // a refused job is no 0
    captured_log().clear();
    notify(1, "State", "s", "completed");
    EXPECT_EQ(captured_log().lines().back().text, "[WPA Supplicant] Restarting udhcpc");
}

TEST_F(StationListener, ARefusedPassphraseIsToldBeforeTheState)
{
    notify(1, "State", "s", "4way_handshake");
    EXPECT_THAT(heard, IsEmpty());
    notify(1, "State", "s", "disconnected");
    EXPECT_THAT(heard, ElementsAre("connectFailed", "failed/"));
    EXPECT_EQ(listener.GetState(), "failed");
    EXPECT_EQ(captured_log().lines().at(4),
              (LogLine{LOG_WARNING,
                       "[WPE supplicant] PropertyChangedCallback: Failed to connect to the accesspoint"}));
}

TEST_F(StationListener, TheStateIsStillTheOldOneWhileARefusedPassphraseIsTold)
{
    std::string state;
    listener.connectFailed.connect([this, &state] { state = listener.GetState(); });
    notify(1, "State", "s", "4way_handshake");
    notify(1, "State", "s", "disconnected");
    EXPECT_EQ(state, "4way_handshake");
}

TEST_F(StationListener, AListIsHandedOnInItsOrderAndMayBeEmpty)
{
    std::vector<std::string> seen;
    listener.bssListChanged.connect([&seen](const std::vector<std::string>& paths) { seen = paths; });
    notify(1, "BSSs", "ao", 3, "/z", "/a", "/m");
    EXPECT_THAT(seen, ElementsAre("/z", "/a", "/m"));
    notify(1, "BSSs", "ao", 0);
    EXPECT_THAT(heard, ElementsAre("3 BSSs", "0 BSSs"));
}

TEST_F(StationListener, PropertiesAreHandledInTheOrderOfTheirNames)
{
    notify(3, "State", "s", "disconnected", "CurrentBSS", "o", "/", "BSSs", "ao", 1, "/a");
    EXPECT_THAT(heard, ElementsAre("1 BSSs", "disconnected/"));
    EXPECT_THAT(captured_log().lines()[1].text, StartsWith("[WPE supplicant] BSS changed: / SSID: <none>"));
}

TEST_F(StationListener, TheHandlerRemembersWhateverItIsGivenAndTellsThreeStates)
{
    for (const char* state : {"completed", "disconnected", "failed", "scanning", "", "completed"}) {
        listener.StateChangeHandler(state, "cafe");
        EXPECT_EQ(listener.GetState(), state);
    }
    EXPECT_THAT(heard, ElementsAre("completed/cafe", "disconnected/cafe", "failed/cafe", "completed/cafe"));
}

TEST_F(StationListener, TheNameOfNoBssAndOfNoPathAtAllIsEmpty)
{
    for (const char* path : {"/", "", "no path", "/bss/"}) {
        EXPECT_EQ(WpaSupplicantDbusListener::GetBssSsid(path), "");
    }
    bus.stop();
    EXPECT_EQ(WpaSupplicantDbusListener::GetBssSsid("/bss/0"), "");
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(StationListener, AValueOfAnotherTypeRaisesWhatItRaises)
{
    EXPECT_THROW(notify(1, "State", "u", 9U), std::bad_any_cast);
    EXPECT_THROW(notify(1, "CurrentBSS", "ay", 0), std::bad_any_cast);
    EXPECT_THROW(notify(1, "BSSs", "s", "/"), std::bad_any_cast);
    EXPECT_EQ(listener.GetState(), "");
}

TEST_F(StationListener, ASignalThatCanNotBeListenedToIsAnError)
{
    matchesLeft = 0;
    EXPECT_EQ(listener.Start(), -ENOMEM);
    const auto lines = captured_log().lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[1], (LogLine{LOG_INFO, "[WPA Listener] Start listening"}));
    EXPECT_EQ(lines[2], (LogLine{LOG_ERR, "Start: Could not listen to signal: " + std::to_string(-ENOMEM)}));
    EXPECT_EQ(lines[3], (LogLine{LOG_INFO, "[WPA Listener] Start completed"}));
}

TEST_F(StationListener, StoppingSaysSoAndClosesTheConnection)
{
    const auto nextDescriptor = [] {
        const UniqueFd next(dup(STDIN_FILENO));
        return next.get();
    };
    const int before = nextDescriptor();
    EXPECT_EQ(listener.Start(), 0);
    EXPECT_EQ(captured_log().lines().size(), 3U);
    EXPECT_EQ(captured_log().lines().back(), (LogLine{LOG_INFO, "[WPA Listener] Start completed"}));
    captured_log().clear();
    EXPECT_NE(nextDescriptor(), before);
    EXPECT_EQ(listener.Stop(), 0);
    EXPECT_EQ(nextDescriptor(), before);
    EXPECT_EQ(listener.Stop(), 0);
    EXPECT_THAT(captured_log().lines(), ElementsAre(LogLine{LOG_INFO, "[WPA Listener] Stop"},
                                                    LogLine{LOG_INFO, "[WPA Listener] Stop"}));
}

} // namespace
