#include "listeners/hostapd_socket_listener.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sigc++/sigc++.h>
#include <sys/stat.h>
#include <syslog.h>

#include "support/captured_log.hpp"
#include "support/scripted_wpa_ctrl.hpp"

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::captured_log;
using testing_support::ScriptedWpaCtrl;

namespace {

const std::string kStation = "11:22:33:44:55:66";
const std::string kOpened = "open /var/run/hostapd/wlan0";

/** The inode of hostapd's socket; 0 when it has none. */
std::atomic<ino_t> hostapdSocket = 0;

} // namespace

/** Stands before the C library's. */
extern "C" int stat(const char* path, struct stat* file) noexcept
{
    if (hostapdSocket == 0 || std::string_view(path) != "/var/run/hostapd/wlan0") {
        return fstatat(AT_FDCWD, path, file, 0);
    }
    *file = {};
    file->st_mode = S_IFSOCK;
    file->st_ino = hostapdSocket;
    return 0;
}

namespace {

class HostapdListener : public testing::Test
{
protected:
    void SetUp() override
    {
        ScriptedWpaCtrl::reset();
        hostapdSocket = 0;
        captured_log().clear();
        const auto note = [this](const std::string& text) { emitted.push_back(text); };
        listener.StationConnectedSignal.connect([note](const std::string& text) { note("+" + text); });
        listener.StationDisconnectedSignal.connect([note](const std::string& text) { note("-" + text); });
        listener.ApEnabledSignal.connect([note](bool on) { note(on ? "enabled" : "disabled"); });
        listener.TerminatingSignal.connect([note] { note("terminating"); });
    }
    void TearDown() override { listener.Stop(); }

    /** Follows hostapd's successor to the end, which must have taken no more than one connection to each of
     * them, and no station with it. */
    void expect_successor_followed()
    {
        listener.follow_successor_of_terminated();
        listener.Stop();
        EXPECT_THAT(ScriptedWpaCtrl::noted(),
                    ElementsAre(kOpened, "ATTACH", "close", kOpened, "ATTACH", "close"));
        EXPECT_EQ(listener.IsStationDisconnected(kStation.c_str()), 0);
    }

    HostapdSocketListner listener;
    std::vector<std::string> emitted;
};

// Events

TEST_F(HostapdListener, AStationThatConnectsIsAnnounced)
{
    listener.SignalEvent("<3>AP-STA-CONNECTED 11:22:33:44:55:66");
    EXPECT_THAT(emitted, ElementsAre("+11:22:33:44:55:66"));
}

TEST_F(HostapdListener, AStationThatDisconnectsIsAnnouncedAndRemembered)
{
    EXPECT_EQ(listener.IsStationDisconnected(kStation.c_str()), 0);
    listener.SignalEvent("<3>AP-STA-DISCONNECTED 11:22:33:44:55:66");
    EXPECT_THAT(emitted, ElementsAre("-11:22:33:44:55:66"));
    EXPECT_EQ(listener.IsStationDisconnected(kStation.c_str()), 1);
}

TEST_F(HostapdListener, OneConnectForgetsEveryDisconnectOfTheStationAndOfNoOther)
{
    for (const char* station : {"11:22:33:44:55:66", "aa:bb:cc:dd:ee:ff", "11:22:33:44:55:66"}) {
        listener.SignalEvent((std::string("<3>AP-STA-DISCONNECTED ") + station).c_str());
    }
    listener.SignalEvent("<3>AP-STA-CONNECTED 11:22:33:44:55:66");
    EXPECT_EQ(listener.IsStationDisconnected(kStation.c_str()), 0);
    EXPECT_EQ(listener.IsStationDisconnected("aa:bb:cc:dd:ee:ff"), 1);
}

TEST_F(HostapdListener, AConnectHasForgottenTheDisconnectBeforeItIsAnnounced)
{
    int disconnected = -1;
    listener.StationConnectedSignal.connect(
        [&](const std::string& station) { disconnected = listener.IsStationDisconnected(station.c_str()); });
    listener.SignalEvent("<3>AP-STA-DISCONNECTED 11:22:33:44:55:66");
    listener.SignalEvent("<3>AP-STA-CONNECTED 11:22:33:44:55:66");
    EXPECT_EQ(disconnected, 0);
}

TEST_F(HostapdListener, ADisconnectIsRememberedBeforeItIsAnnounced)
{
    int disconnected = -1;
    listener.StationDisconnectedSignal.connect(
        [&](const std::string& station) { disconnected = listener.IsStationDisconnected(station.c_str()); });
    listener.SignalEvent("<3>AP-STA-DISCONNECTED 11:22:33:44:55:66");
    EXPECT_EQ(disconnected, 1);
}

TEST_F(HostapdListener, TheLatest2007StationsThatLeftAreRememberedAndNoMore)
{
    constexpr int kLimit = 2007;
    listener.SignalEvent("<3>AP-STA-DISCONNECTED 11:22:33:44:55:66");
    EXPECT_EQ(listener.IsStationDisconnected(kStation.c_str()), 1);
    for (int i = 0; i < kLimit - 1; ++i) {
        listener.SignalEvent("<3>AP-STA-DISCONNECTED 00:00:00:00:00:01");
    }
    EXPECT_EQ(listener.IsStationDisconnected(kStation.c_str()), 1);
    listener.SignalEvent("<3>AP-STA-DISCONNECTED 00:00:00:00:00:01");
    EXPECT_EQ(listener.IsStationDisconnected(kStation.c_str()), 0);
}

TEST_F(HostapdListener, TheStationTextIsAllBehindTheFirstBlank)
{
    listener.SignalEvent("<3>AP-STA-CONNECTED 11:22:33:44:55:66 keyid=phone  x ");
    listener.SignalEvent("<3>AP-STA-CONNECTED ");
    listener.SignalEvent("<3>AP-STA-CONNECTED  twice");
    listener.SignalEvent("<3>wlan0: AP-STA-DISCONNECTED 11:22:33:44:55:66");
    EXPECT_THAT(emitted, ElementsAre("+11:22:33:44:55:66 keyid=phone  x ", "+", "+ twice",
                                     "-AP-STA-DISCONNECTED 11:22:33:44:55:66"));
}

TEST_F(HostapdListener, FurtherFieldsKeepAConnectFromForgettingTheDisconnect)
{
    listener.SignalEvent("<3>AP-STA-DISCONNECTED 11:22:33:44:55:66");
    listener.SignalEvent("<3>AP-STA-CONNECTED 11:22:33:44:55:66 keyid=phone");
    EXPECT_EQ(listener.IsStationDisconnected(kStation.c_str()), 1);
}

TEST_F(HostapdListener, TheStationTextOfAnEventWithoutABlankIsTheWholeEvent)
{
    listener.SignalEvent("<3>AP-STA-CONNECTED");
    listener.SignalEvent("AP-STA-DISCONNECTED\t11:22:33:44:55:66");
    EXPECT_THAT(emitted, ElementsAre("+<3>AP-STA-CONNECTED", "-AP-STA-DISCONNECTED\t11:22:33:44:55:66"));
}

TEST_F(HostapdListener, TheAccessPointIsEnabledFromEnabledToDisabled)
{
    EXPECT_FALSE(listener.IsApEnabled());
    listener.SignalEvent("AP-ENABLED");
    EXPECT_TRUE(listener.IsApEnabled());
    listener.SignalEvent("<3>AP-ENABLED ");
    EXPECT_TRUE(listener.IsApEnabled());
    listener.SignalEvent("<3>AP-DISABLED ");
    EXPECT_FALSE(listener.IsApEnabled());
    EXPECT_THAT(emitted, ElementsAre("enabled", "enabled", "disabled"));
}

TEST_F(HostapdListener, TheFlagHasChangedBeforeItIsAnnounced)
{
    std::vector<bool> seen;
    listener.ApEnabledSignal.connect([&](bool) { seen.push_back(listener.IsApEnabled()); });
    listener.SignalEvent("<3>AP-ENABLED ");
    listener.SignalEvent("<3>AP-DISABLED ");
    EXPECT_THAT(seen, ElementsAre(true, false));
}

TEST_F(HostapdListener, AnyEventWithTheBeginningOfTerminatingAnnouncesTheEnd)
{
    listener.SignalEvent("<3>CTRL-EVENT-TERMINATING ");
    listener.SignalEvent("CTRL-EVENT-T");
    listener.SignalEvent("<3>CTRL-EVENT-TEMP-DISABLED");
    EXPECT_THAT(emitted, ElementsAre("terminating", "terminating", "terminating"));
}

TEST_F(HostapdListener, TheFirstTextInTheTableWinsWhereverItStands)
{
    listener.SignalEvent("CTRL-EVENT-T AP-DISABLED AP-ENABLED AP-STA-DISCONNECTED AP-STA-CONNECTED");
    listener.SignalEvent("CTRL-EVENT-T AP-DISABLED AP-ENABLED AP-STA-DISCONNECTED");
    listener.SignalEvent("CTRL-EVENT-T AP-DISABLED AP-ENABLED");
    listener.SignalEvent("CTRL-EVENT-T AP-DISABLED");
    EXPECT_THAT(emitted, ElementsAre("+AP-DISABLED AP-ENABLED AP-STA-DISCONNECTED AP-STA-CONNECTED",
                                     "-AP-DISABLED AP-ENABLED AP-STA-DISCONNECTED", "enabled", "disabled"));
}

TEST_F(HostapdListener, OtherEventsAreIgnored)
{
    listener.SignalEvent(nullptr);
    for (const char* event : {"", "<3>", "<3>AP-STA-POSSIBLE-PSK-MISMATCH 11:22:33:44:55:66", "<3>ap-enabled",
                              "<3>CTRL-EVENT-EAP-STARTED", "\xff\xfe"}) {
        listener.SignalEvent(event);
    }
    EXPECT_THAT(emitted, IsEmpty());
    EXPECT_FALSE(listener.IsApEnabled());
}

TEST(HostapdListenerAlone, SignalsThatNobodyIsConnectedToAreSkipped)
{
    HostapdSocketListner listener;
    for (const char* event : {"AP-STA-CONNECTED a", "AP-STA-DISCONNECTED a", "AP-ENABLED", "CTRL-EVENT-T"}) {
        listener.SignalEvent(event);
    }
    EXPECT_TRUE(listener.IsApEnabled());
}

// Records

TEST_F(HostapdListener, ARecordWithoutAnAddressCountsAsDisconnected)
{
    EXPECT_EQ(listener.IsStationDisconnected(nullptr), 1);
    for (const char* record : {"", "FAIL\n", "UNKNOWN COMMAND\n", "112233445566", ":", ":1",
                               "11:22:33:44:55:", "11:22:33:44:55:6"}) {
        EXPECT_EQ(listener.IsStationDisconnected(record), 1) << record;
    }
}

TEST_F(HostapdListener, AnAddressEndsTwoCharactersBehindTheLastColon)
{
    listener.SignalEvent("<3>AP-STA-DISCONNECTED 11:22:33:44:55:66");
    EXPECT_EQ(listener.IsStationDisconnected("11:22:33:44:55:66\nflags=[AUTH][A"), 1);
    EXPECT_EQ(listener.IsStationDisconnected("11:22:33:44:55:67\nflags=[AUTH][A"), 0);
    EXPECT_EQ(listener.IsStationDisconnected("11:22:33:44:55:66\nflags=a:bcd"), 0);
    EXPECT_EQ(listener.IsStationDisconnected(":66"), 0);
    EXPECT_EQ(listener.IsStationDisconnected("1:22:33:44:55:66"), 0);
}

TEST_F(HostapdListener, AddressesAreComparedByteForByte)
{
    listener.SignalEvent("<3>AP-STA-DISCONNECTED aa:bb:cc:dd:ee:ff");
    EXPECT_EQ(listener.IsStationDisconnected("AA:BB:CC:DD:EE:FF"), 0);
}

TEST_F(HostapdListener, RemovingErasesEveryEqualEntryOnly)
{
    for (const char* station : {"a:01", "b:02", "a:01", "c:03"}) {
        listener.SignalEvent((std::string("AP-STA-DISCONNECTED ") + station).c_str());
    }
    listener.RemoveDisconnectedStation("a:01");
    listener.RemoveDisconnectedStation("b:0");
    EXPECT_EQ(listener.IsStationDisconnected("a:01"), 0);
    EXPECT_EQ(listener.IsStationDisconnected("b:02"), 1);
    EXPECT_EQ(listener.IsStationDisconnected("c:03"), 1);
}

// Life

TEST_F(HostapdListener, StartOpensTheSocketOfHostapd)
{
    listener.Start();
    listener.Stop();
    EXPECT_EQ(ScriptedWpaCtrl::noted().front(), kOpened);
}

TEST_F(HostapdListener, AConnectionOfItsOwnIsOpenedForTheInterfaceAskedFor)
{
    ScriptedWpaCtrl::opens = false;
    EXPECT_EQ(HostapdSocketListner::ConnectSocket("wlan3"), nullptr);
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre("open /var/run/hostapd/wlan3"));
}

TEST_F(HostapdListener, RestartKeepsAndResetForgetsTheDisconnectedStationsAndBothKeepTheFlag)
{
    listener.Start();
    listener.SignalEvent("<3>AP-ENABLED ");
    listener.SignalEvent("<3>AP-STA-DISCONNECTED 11:22:33:44:55:66");
    listener.Restart();
    EXPECT_EQ(listener.IsStationDisconnected(kStation.c_str()), 1);
    EXPECT_TRUE(listener.IsApEnabled());
    listener.Reset();
    EXPECT_EQ(listener.IsStationDisconnected(kStation.c_str()), 0);
    EXPECT_TRUE(listener.IsApEnabled());
    EXPECT_EQ(ScriptedWpaCtrl::noted().back(), "close");
}

TEST_F(HostapdListener, AfterAFarewellTheOldOneIsListenedToUntilItsSocketIsReplacedAndItsStationsAreForgotten)
{
    hostapdSocket = 1;
    listener.Start();
    listener.SignalEvent("<3>AP-STA-DISCONNECTED 11:22:33:44:55:66");
    listener.SignalEvent("<3>CTRL-EVENT-TERMINATING ");
    ScriptedWpaCtrl::onSleep = [] {
        ScriptedWpaCtrl::send("<3>AP-DISABLED ");
        EXPECT_TRUE(captured_log().wait_for({LOG_INFO, "ListenTask: Recv <3>AP-DISABLED "}));
        hostapdSocket = 2;
    };
    expect_successor_followed();
    EXPECT_EQ(ScriptedWpaCtrl::sleeps.size(), 1U);
}

TEST_F(HostapdListener, ASuccessorThatIsFollowedAlreadyKeepsItsConnectionWhenTheFarewellIsHandled)
{
    hostapdSocket = 1;
    listener.Start();
    ASSERT_TRUE(ScriptedWpaCtrl::wait_for_selects(1));
    listener.SignalEvent("<3>AP-STA-DISCONNECTED 11:22:33:44:55:66");
    listener.SignalEvent("<3>CTRL-EVENT-TERMINATING ");
    hostapdSocket = 2;
    listener.Restart();
    expect_successor_followed();
}

TEST_F(HostapdListener, TheFirstStartAfterAFarewellGivesTheSocketASecondToGoAway)
{
    hostapdSocket = 1;
    listener.Start();
    listener.SignalEvent("<3>CTRL-EVENT-TERMINATING ");
    for (int round = 0; round < 2; ++round) {
        listener.Stop();
        listener.Start();
        EXPECT_EQ(ScriptedWpaCtrl::sleeps.size(), 100U);
    }
}

TEST_F(HostapdListener, StationsMayBeAskedForWhileEventsComeIn)
{
    std::thread events([this] {
        for (int round = 0; round < 2000; ++round) {
            listener.SignalEvent("<3>AP-STA-DISCONNECTED 11:22:33:44:55:66");
            listener.SignalEvent("<3>AP-STA-CONNECTED 11:22:33:44:55:66");
        }
    });
    for (int round = 0; round < 2000; ++round) {
        EXPECT_LE(listener.IsStationDisconnected(kStation.c_str()), 1);
    }
    events.join();
    EXPECT_EQ(listener.IsStationDisconnected(kStation.c_str()), 0);
    EXPECT_EQ(emitted.size(), 4000U);
}

TEST(HostapdListenerOfTheProcess, IsOneAndThereBeforeItIsAskedFor)
{
    ASSERT_NE(hostapd_listener(), nullptr);
    EXPECT_EQ(hostapd_listener(), hostapd_listener());
    EXPECT_FALSE(hostapd_listener()->IsApEnabled());
}

} // namespace
