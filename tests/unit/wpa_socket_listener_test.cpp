#include "listeners/wpa_socket_listener.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <syslog.h>

#include "listeners/wpa_supplicant_socket_listener.hpp"
#include "support/captured_log.hpp"
#include "support/scripted_wpa_ctrl.hpp"
#include "support/temp_folder.hpp"
#include "support/unique_fd.hpp"

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::captured_log;
using testing_support::line;
using testing_support::LogLine;
using testing_support::ScriptedWpaCtrl;
using testing_support::TempFolder;

namespace {

/** A folder that exists nowhere, so that each attempt to connect sleeps twice, here without taking time. */
constexpr const char* kDirectory = "/nonexistent/control";
const std::string kOpened = "open /nonexistent/control/wlan0";

/** Keeps the events that it is given. */
class RecordingListener : public WpaSocketListener
{
public:
    ~RecordingListener() override { Stop(); }

    void SignalEvent(const char* message) override
    {
        {
            const std::lock_guard lock(mutex_);
            events_.emplace_back(message);
            arrived_.notify_all();
        }
        if (onEvent) {
            onEvent();
        }
    }

    void Start() override { start_listening(directory.c_str()); }

    using WpaSocketListener::expect_successor;
    using WpaSocketListener::follows_successor;

    /** Waits until there are so many events and returns them all. */
    std::vector<std::string> events(size_t count)
    {
        std::unique_lock lock(mutex_);
        arrived_.wait_for(lock, std::chrono::seconds(20), [&] { return events_.size() >= count; });
        return events_;
    }

    std::function<void()> onEvent;
    std::string directory = kDirectory;

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<std::string> events_;
};

const LogLine kSelectFailed = {LOG_ERR, "ListenTask: Failed to select hostapd fd"};
const LogLine kNotConnected = {LOG_ERR, "ListenTask: Not connected to socket - cannot listen."};

LogLine received(const std::string& event)
{
    return {LOG_INFO, "ListenTask: Recv " + event};
}

class WpaSocketListenerTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ScriptedWpaCtrl::reset();
        captured_log().clear();
    }
    void TearDown() override { listener.Stop(); }

    RecordingListener listener;
};

// Connecting

TEST_F(WpaSocketListenerTest, StartOpensAttachesAndHandsOverEvents)
{
    listener.Start();
    ScriptedWpaCtrl::send("<3>one");
    EXPECT_THAT(listener.events(1), ElementsAre("<3>one"));
    listener.Stop();
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre(kOpened, "ATTACH", "close"));
    EXPECT_THAT(captured_log().lines(), ElementsAre(received("<3>one")));
}

TEST_F(WpaSocketListenerTest, WaitsASecondTwiceForAnAbsentSocketAndTriesAllTheSame)
{
    EXPECT_EQ(open_control_socket(kDirectory, "wlan0").get(), &ScriptedWpaCtrl::connection);
    ASSERT_EQ(ScriptedWpaCtrl::sleeps.size(), 2U);
    for (const timespec& sleep : ScriptedWpaCtrl::sleeps) {
        EXPECT_EQ(sleep.tv_sec, 1);
        EXPECT_EQ(sleep.tv_nsec, 0);
    }
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre(kOpened, "close"));
}

TEST_F(WpaSocketListenerTest, DoesNotWaitForASocketThatIsThere)
{
    open_control_socket("/", "tmp");
    EXPECT_TRUE(ScriptedWpaCtrl::sleeps.empty());
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre("open //tmp", "close"));
}

TEST_F(WpaSocketListenerTest, WithoutAConnectionTheThreadEndsAndTheNextStartTriesAgain)
{
    ScriptedWpaCtrl::opens = false;
    listener.Start();
    EXPECT_TRUE(captured_log().wait_for(kNotConnected));
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre(kOpened));

    ScriptedWpaCtrl::opens = true;
    listener.Start();
    ScriptedWpaCtrl::send("event");
    EXPECT_THAT(listener.events(1), ElementsAre("event"));
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre(kOpened, kOpened, "ATTACH"));
}

TEST_F(WpaSocketListenerTest, AnAttachmentThatIsRefusedOrNotAnsweredEndsTheThread)
{
    for (const char* answer : {"", "OK", "OK\n\n", "FAIL\n", "ok\n"}) {
        captured_log().clear();
        ScriptedWpaCtrl::attachAnswer = answer;
        listener.Restart();
        EXPECT_TRUE(
            captured_log().wait_for({LOG_ERR, "ListenTask: Cannot attach to socket - cannot listen."}));
        listener.Stop();
        EXPECT_EQ(captured_log().lines().size(), 1U);
        EXPECT_TRUE(ScriptedWpaCtrl::selectTimeouts.empty());
    }
}

TEST_F(WpaSocketListenerTest, ANegativeDescriptorEndsTheThread)
{
    ScriptedWpaCtrl::descriptor = -1;
    listener.Start();
    EXPECT_TRUE(captured_log().wait_for({LOG_ERR, "ListenTask: Failed to get a valid fd - cannot listen."}));
    listener.Stop();
    EXPECT_EQ(captured_log().lines().size(), 1U);
    EXPECT_TRUE(ScriptedWpaCtrl::selectTimeouts.empty());
}

// Waiting

TEST_F(WpaSocketListenerTest, WaitsOneSecondAnewEachTime)
{
    listener.Start();
    for (int wait = 1; wait <= 3; ++wait) {
        ASSERT_TRUE(ScriptedWpaCtrl::wait_for_selects(wait));
        ScriptedWpaCtrl::send("event");
    }
    EXPECT_EQ(listener.events(3).size(), 3U);
    listener.Stop();
    for (const timeval& timeout : ScriptedWpaCtrl::selectTimeouts) {
        EXPECT_EQ(timeout.tv_sec, 1);
        EXPECT_EQ(timeout.tv_usec, 0);
    }
}

TEST_F(WpaSocketListenerTest, AFailingWaitEndsTheThread)
{
    const int closed = dup(STDIN_FILENO);
    close(closed);
    ScriptedWpaCtrl::descriptor = closed;
    listener.Start();
    EXPECT_TRUE(captured_log().wait_for(kSelectFailed));
    listener.Stop();
    EXPECT_THAT(captured_log().lines(), ElementsAre(kSelectFailed));
    EXPECT_EQ(ScriptedWpaCtrl::selectTimeouts.size(), 1U);
}

TEST_F(WpaSocketListenerTest, ADescriptorThatNoSetCanHoldEndsTheThreadInsteadOfDamagingMemory)
{
    ScriptedWpaCtrl::descriptor = FD_SETSIZE;
    listener.Start();
    EXPECT_TRUE(captured_log().wait_for(kSelectFailed));
    listener.Stop();
    EXPECT_TRUE(ScriptedWpaCtrl::selectTimeouts.empty());
}

TEST_F(WpaSocketListenerTest, NorDoesItsOwnDescriptorWhereTheProcessHasSoMany)
{
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit enough = {std::max<rlim_t>(before.rlim_cur, FD_SETSIZE + 100), before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &enough), 0);
    {
        // The next to be opened is the first that no set can hold.
        std::vector<UniqueFd> others;
        do {
            others.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
            ASSERT_TRUE(others.back());
        } while (others.back().get() < FD_SETSIZE - 1);
        RecordingListener late;
        late.Start();
        EXPECT_TRUE(captured_log().wait_for(kSelectFailed));
        late.Stop();
        EXPECT_TRUE(ScriptedWpaCtrl::selectTimeouts.empty());
    }
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(WpaSocketListenerTest, AWaitThatIsInterruptedOrEndsWithItsTimeIsNoFailure)
{
    ScriptedWpaCtrl::interruptedSelects = 3;
    ScriptedWpaCtrl::emptySelects = 3;
    listener.Start();
    ASSERT_TRUE(ScriptedWpaCtrl::wait_for_selects(7));
    ScriptedWpaCtrl::send("event");
    EXPECT_THAT(listener.events(1), ElementsAre("event"));
    listener.Stop();
    EXPECT_THAT(captured_log().lines(), ElementsAre(received("event")));
}

TEST_F(WpaSocketListenerTest, TheFirstDescriptorOfAllIsOneLikeAnyOther)
{
    const UniqueFd input(dup(STDIN_FILENO));
    close(STDIN_FILENO);
    {
        RecordingListener late; // is given it for what wakes its thread up
        late.Start();
        ASSERT_TRUE(ScriptedWpaCtrl::wait_for_selects(1));
        const auto before = std::chrono::steady_clock::now();
        late.Stop();
        EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(30)); // the wait lasts 60
    }
    dup2(ScriptedWpaCtrl::connection.fd, STDIN_FILENO);
    ScriptedWpaCtrl::descriptor = STDIN_FILENO;
    listener.Start();
    ScriptedWpaCtrl::send("event");
    EXPECT_THAT(listener.events(1), ElementsAre("event"));
    listener.Stop();
    dup2(input.get(), STDIN_FILENO);
}

// Receiving

TEST_F(WpaSocketListenerTest, ALaterEventOfOneWakeUpIsCutToTheLengthOfTheOneBefore)
{
    ScriptedWpaCtrl::send("<3>first one");
    ScriptedWpaCtrl::send("<3>short");
    ScriptedWpaCtrl::send("<3>longer than the second");
    ScriptedWpaCtrl::send("<3>x");
    listener.Start();
    EXPECT_THAT(listener.events(4), ElementsAre("<3>first one", "<3>short", "<3>longe", "<3>x"));

    // The next wake-up starts afresh.
    ASSERT_TRUE(ScriptedWpaCtrl::wait_for_selects(2));
    ScriptedWpaCtrl::send("<3>a long event again");
    EXPECT_EQ(listener.events(5).at(4), "<3>a long event again");
    EXPECT_EQ(captured_log().lines().at(2), received("<3>longe"));
}

TEST_F(WpaSocketListenerTest, AnEmptyEventCutsTheRestOfItsWakeUpToNothing)
{
    ScriptedWpaCtrl::send("");
    ScriptedWpaCtrl::send("<3>event");
    listener.Start();
    EXPECT_THAT(listener.events(2), ElementsAre("", ""));
    listener.Stop();
    EXPECT_THAT(captured_log().lines(), ElementsAre(received(""), received("")));
}

TEST_F(WpaSocketListenerTest, AnEventHasAtMost4095Bytes)
{
    ScriptedWpaCtrl::send(std::string(5000, 'e'));
    listener.Start();
    EXPECT_THAT(listener.events(1), ElementsAre(std::string(4095, 'e')));
}

TEST_F(WpaSocketListenerTest, NothingOfALongerEventShowsBehindAShorterOne)
{
    ScriptedWpaCtrl::send("<3>long event");
    ScriptedWpaCtrl::send("<3>e");
    listener.Start();
    EXPECT_THAT(listener.events(2), ElementsAre("<3>long event", "<3>e"));
}

TEST_F(WpaSocketListenerTest, AFailingReceiveIsPassedOver)
{
    ScriptedWpaCtrl::failingReceives = 5;
    ScriptedWpaCtrl::send("event");
    listener.Start();
    EXPECT_THAT(listener.events(1), ElementsAre("event"));
    listener.Stop();
    EXPECT_THAT(captured_log().lines(), ElementsAre(received("event")));
}

TEST_F(WpaSocketListenerTest, BytesThatAreNoTextPassThrough)
{
    ScriptedWpaCtrl::send("\xff\xfe %s %n");
    listener.Start();
    EXPECT_THAT(listener.events(1), ElementsAre("\xff\xfe %s %n"));
    listener.Stop();
    EXPECT_THAT(captured_log().lines(), ElementsAre(received("\xff\xfe %s %n")));
}

// Stopping and starting again

TEST_F(WpaSocketListenerTest, StopEndsAWaitAtOnceAndClosesTheConnection)
{
    listener.Start();
    ScriptedWpaCtrl::send("event");
    listener.events(1);
    const auto before = std::chrono::steady_clock::now();
    listener.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(30)); // the wait lasts 60
    EXPECT_EQ(ScriptedWpaCtrl::noted().back(), "close");
}

TEST_F(WpaSocketListenerTest, StopIsHarmlessWithoutAThreadAndASecondTime)
{
    listener.Stop();
    EXPECT_THAT(ScriptedWpaCtrl::noted(), IsEmpty());
    listener.Start();
    listener.Stop();
    listener.Stop();
    const std::vector<std::string> calls = ScriptedWpaCtrl::noted();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "close"), 1);
}

TEST_F(WpaSocketListenerTest, StopReturnsAlthoughAskingForPendingEventsFails)
{
    ScriptedWpaCtrl::send("event");
    listener.onEvent = [] { ScriptedWpaCtrl::pendingErrors = true; };
    listener.Start();
    listener.events(1);
    auto stopped = std::async(std::launch::async, [this] { listener.Stop(); });
    ASSERT_EQ(stopped.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_THAT(captured_log().lines(), ElementsAre(received("event")));
}

TEST_F(WpaSocketListenerTest, AnErrorCountsAsPendingAndTheEventsAfterItAreReceived)
{
    ScriptedWpaCtrl::pendingErrors = true;
    ScriptedWpaCtrl::send("one");
    ScriptedWpaCtrl::send("two");
    listener.Start();
    EXPECT_THAT(listener.events(2), ElementsAre("one", "two"));
}

TEST_F(WpaSocketListenerTest, StartWhileRunningEndsTheThreadAndAttachesAnewOverTheSameConnection)
{
    listener.Start();
    ScriptedWpaCtrl::send("one");
    listener.events(1);
    listener.Start();
    ScriptedWpaCtrl::send("two");
    EXPECT_THAT(listener.events(2), ElementsAre("one", "two"));
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre(kOpened, "ATTACH", "ATTACH"));
}

TEST_F(WpaSocketListenerTest, RestartOpensANewConnection)
{
    listener.Start();
    ScriptedWpaCtrl::send("one");
    listener.events(1);
    listener.Restart();
    ScriptedWpaCtrl::send("two");
    listener.events(2);
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre(kOpened, "ATTACH", "close", kOpened, "ATTACH"));
}

TEST_F(WpaSocketListenerTest, RestartLetsTheSocketOfBeforeGoAwayFirst)
{
    const TempFolder folder;
    folder.write("wlan0", "");
    listener.directory = folder.path();
    listener.Start();
    EXPECT_TRUE(ScriptedWpaCtrl::sleeps.empty());

    ScriptedWpaCtrl::onSleep = [&folder] {
        if (ScriptedWpaCtrl::sleeps.size() == 3) {
            std::filesystem::remove(folder.file("wlan0"));
        } else if (ScriptedWpaCtrl::sleeps.size() == 4) {
            folder.write("wlan0", "");
        }
    };
    listener.Restart();
    ASSERT_EQ(ScriptedWpaCtrl::sleeps.size(), 4U);
    EXPECT_EQ(ScriptedWpaCtrl::sleeps[2].tv_sec, 0);
    EXPECT_EQ(ScriptedWpaCtrl::sleeps[2].tv_nsec, 10'000'000);
    EXPECT_EQ(ScriptedWpaCtrl::sleeps[3].tv_sec, 1); // from here on as for any absent socket
}

TEST_F(WpaSocketListenerTest, RestartWaitsNoLongerThanASecondForASocketThatStays)
{
    const TempFolder folder;
    folder.write("wlan0", "");
    listener.directory = folder.path();
    listener.Start();
    listener.Restart();
    EXPECT_EQ(ScriptedWpaCtrl::sleeps.size(), 100U);
    EXPECT_TRUE(std::ranges::all_of(ScriptedWpaCtrl::sleeps, [](const timespec& sleep) {
        return sleep.tv_sec == 0 && sleep.tv_nsec == 10'000'000;
    }));
}

TEST_F(WpaSocketListenerTest, SuccessorThatIsThereAlreadyIsNotWaitedFor)
{
    const TempFolder folder;
    folder.write("wlan0", "");
    folder.write("next", "");
    listener.directory = folder.path();
    listener.Start();
    std::filesystem::rename(folder.file("next"), folder.file("wlan0"));
    listener.Restart();
    EXPECT_TRUE(ScriptedWpaCtrl::sleeps.empty());
}

// A daemon that is replaced

/** A folder with a socket file that can be replaced, and a listener that has not been started yet. */
class ReplacedDaemon : public WpaSocketListenerTest
{
protected:
    void SetUp() override
    {
        WpaSocketListenerTest::SetUp();
        listener.directory = folder.path();
        folder.write("wlan0", "");
        folder.write("next", "");
    }

    void replace() const
    {
        if (std::filesystem::exists(folder.file("next"))) {
            std::filesystem::rename(folder.file("next"), folder.file("wlan0"));
        }
    }

    std::string opened() const { return "open " + folder.file("wlan0"); }

    const TempFolder folder;
};

TEST_F(ReplacedDaemon, RestartHandsOverWhatTheOldOneSaysUntilItsSocketIsReplaced)
{
    listener.Start();
    ASSERT_TRUE(ScriptedWpaCtrl::wait_for_selects(1));
    ScriptedWpaCtrl::onSleep = [this] {
        if (ScriptedWpaCtrl::sleeps.size() == 1) {
            ScriptedWpaCtrl::send("<3>AP-DISABLED ");
            listener.events(1); // on the thread, which goes on while the main thread waits
        } else {
            replace();
        }
    };
    listener.Restart();
    EXPECT_THAT(listener.events(1), ElementsAre("<3>AP-DISABLED "));
    EXPECT_EQ(ScriptedWpaCtrl::sleeps.size(), 2U);
    listener.Stop();
    EXPECT_THAT(ScriptedWpaCtrl::noted(),
                ElementsAre(opened(), "ATTACH", "close", opened(), "ATTACH", "close"));
}

TEST_F(ReplacedDaemon, RestartHandsOverWhatHasArrivedWhenTheThreadComesBackFromAnEvent)
{
    std::promise<void> replaced;
    listener.onEvent = [&, first = true]() mutable {
        if (std::exchange(first, false)) {
            replaced.get_future().wait_for(std::chrono::seconds(20));
        }
    };
    listener.Start();
    ScriptedWpaCtrl::send("<3>one");
    listener.events(1);
    for (const std::string& event :
         {std::string(5000, 'e'), std::string("<3>AP-STA-DISCONNECTED 02:00:00:00:00:01"),
          std::string("<3>AP-DISABLED "), std::string("<3>CTRL-EVENT-T")}) {
        ScriptedWpaCtrl::send(event);
    }
    replace();
    ScriptedWpaCtrl::opens = false; // from the old connection it must be
    auto restarted = std::async(std::launch::async, [this] { listener.Restart(); });
    // The thread finds itself stopped when its slot returns.
    EXPECT_EQ(restarted.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    replaced.set_value();
    restarted.get();
    EXPECT_THAT(listener.events(5),
                ElementsAre("<3>one", std::string(4095, 'e'), "<3>AP-STA-DISCONNECTED 02:00:00:00:00:01",
                            "<3>AP-DISABLED ", "<3>CTRL-EVENT-T"));
}

TEST_F(ReplacedDaemon, RestartReturnsAlthoughTheOldOneGoesOnTalking)
{
    listener.onEvent = [] { ScriptedWpaCtrl::send("<3>again"); };
    listener.Start();
    ScriptedWpaCtrl::send("<3>first");
    listener.events(10);
    auto restarted = std::async(std::launch::async, [this] { listener.Restart(); });
    EXPECT_EQ(restarted.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(ScriptedWpaCtrl::sleeps.size(), 100U); // its socket has stayed
}

TEST_F(ReplacedDaemon, StopHandsOverNothingMore)
{
    std::promise<void> stopping;
    listener.onEvent = [&] { stopping.get_future().wait_for(std::chrono::seconds(20)); };
    listener.Start();
    ScriptedWpaCtrl::send("one");
    listener.events(1);
    ScriptedWpaCtrl::send("two");
    auto stopped = std::async(std::launch::async, [this] { listener.Stop(); });
    EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    stopping.set_value();
    stopped.get();
    EXPECT_THAT(listener.events(1), ElementsAre("one"));
}

TEST_F(ReplacedDaemon, AnAttachmentThatFailsIsMadeOnceMoreToTheNewOne)
{
    size_t heard = 0;
    for (const char* answer : {"", "FAIL\n"}) {
        SetUp();
        ScriptedWpaCtrl::attachAnswer = answer;
        ScriptedWpaCtrl::whileAttaching = [this](const ControlWait&) {
            if (std::filesystem::exists(folder.file("next"))) {
                replace();
            } else {
                ScriptedWpaCtrl::attachAnswer = "OK\n";
            }
        };
        listener.Start();
        ASSERT_TRUE(ScriptedWpaCtrl::wait_for_selects(1));
        ScriptedWpaCtrl::send("heard");
        EXPECT_EQ(listener.events(++heard).back(), "heard");
        listener.Stop();
        EXPECT_THAT(ScriptedWpaCtrl::noted(),
                    ElementsAre(opened(), "ATTACH", "close", opened(), "ATTACH", "close"));
        EXPECT_THAT(captured_log().lines(), ElementsAre(received("heard")));
    }
}

TEST_F(ReplacedDaemon, ANewOneThatIsNotThereYetIsWaitedFor)
{
    ScriptedWpaCtrl::attachAnswer = "";
    std::future<void> comes;
    ScriptedWpaCtrl::whileAttaching = [&](const ControlWait&) {
        if (comes.valid()) {
            ScriptedWpaCtrl::attachAnswer = "OK\n";
            return;
        }
        std::filesystem::remove(folder.file("wlan0"));
        comes = std::async(std::launch::async, [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            replace();
        });
    };
    listener.Start();
    ASSERT_TRUE(ScriptedWpaCtrl::wait_for_selects(1));
    listener.Stop();
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(ReplacedDaemon, ANewOneThatDoesNotComeIsReported)
{
    ScriptedWpaCtrl::attachAnswer = "";
    ScriptedWpaCtrl::whileAttaching = [this](const ControlWait&) {
        ScriptedWpaCtrl::opens = false;
        std::filesystem::remove(folder.file("wlan0"));
    };
    listener.Start();
    EXPECT_TRUE(captured_log().wait_for(kNotConnected));
    listener.Stop();
    EXPECT_THAT(captured_log().lines(), ElementsAre(kNotConnected));
}

TEST_F(ReplacedDaemon, AnAttachmentToOneThatIsReplacedAlreadyIsMadeToTheNewOne)
{
    ScriptedWpaCtrl::whileAttaching = [this](const ControlWait&) {
        if (std::filesystem::exists(folder.file("next"))) {
            replace();
            ScriptedWpaCtrl::send("the old one's last word");
        }
    };
    listener.onEvent = [] { ScriptedWpaCtrl::note("heard"); };
    listener.Start();
    EXPECT_THAT(listener.events(1), ElementsAre("the old one's last word"));
    ASSERT_TRUE(ScriptedWpaCtrl::wait_for_selects(1));
    listener.Stop();
    EXPECT_THAT(ScriptedWpaCtrl::noted(),
                ElementsAre(opened(), "ATTACH", "heard", "close", opened(), "ATTACH", "close"));
}

TEST_F(ReplacedDaemon, WaitingForTheAnswerIsGivenUpForANewOneAndForAStopAndForNothingElse)
{
    std::vector<bool> given;
    ScriptedWpaCtrl::whileAttaching = [&](const ControlWait& wait) {
        given.push_back(wait.givesUp());
        std::filesystem::rename(folder.file("wlan0"), folder.file("gone"));
        given.push_back(wait.givesUp()); // the old one may still answer
        replace();
        given.push_back(wait.givesUp());
        ScriptedWpaCtrl::whileAttaching = nullptr;
    };
    listener.Start();
    ASSERT_TRUE(ScriptedWpaCtrl::wait_for_selects(1));
    EXPECT_THAT(given, ElementsAre(false, false, true));

    listener.Stop();
    std::promise<void> asking;
    std::promise<bool> stopped;
    ScriptedWpaCtrl::attachAnswer = "";
    ScriptedWpaCtrl::whileAttaching = [&](const ControlWait& wait) {
        asking.set_value();
        pollfd wakeUp = {.fd = wait.wakeUp, .events = POLLIN, .revents = 0};
        poll(&wakeUp, 1, 20'000);
        stopped.set_value(wait.givesUp());
    };
    listener.Start();
    asking.get_future().wait();
    ScriptedWpaCtrl::onOpen = [] {
        ScriptedWpaCtrl::whileAttaching = nullptr;
        ScriptedWpaCtrl::attachAnswer = "OK\n";
    };
    const std::size_t before = ScriptedWpaCtrl::noted().size();
    listener.Start();
    EXPECT_TRUE(stopped.get_future().get());
    listener.Stop();
    EXPECT_THAT(captured_log().lines(), IsEmpty()); // it was not refused
    const auto calls = ScriptedWpaCtrl::noted();
    EXPECT_THAT(std::vector(calls.begin() + static_cast<std::ptrdiff_t>(before) - 1, calls.end()),
                ElementsAre("ATTACH", "close", opened(), "ATTACH", "close"))
        << "an answer that came late would be taken for that to the next question";
}

TEST_F(ReplacedDaemon, EventsThatComeBeforeTheAnswerAreHandedOverInOrder)
{
    ScriptedWpaCtrl::whileAttaching = [](const ControlWait& wait) {
        wait.onEvent("<3>one");
        wait.onEvent("<3>longer than one");
        ScriptedWpaCtrl::send("<3>three");
    };
    listener.Start();
    EXPECT_THAT(listener.events(3), ElementsAre("<3>one", "<3>longer than one", "<3>three"));
    EXPECT_THAT(captured_log().lines(),
                ElementsAre(received("<3>one"), received("<3>longer than one"), received("<3>three")));
}

TEST_F(ReplacedDaemon, OneThatWasReplacedBeforeItCouldBeConnectedToIsNotTheEnd)
{
    ScriptedWpaCtrl::opens = false;
    ScriptedWpaCtrl::onOpen = [this] {
        if (std::filesystem::exists(folder.file("next"))) {
            replace();
        } else {
            ScriptedWpaCtrl::opens = true;
        }
    };
    listener.Start();
    ASSERT_TRUE(ScriptedWpaCtrl::wait_for_selects(1));
    listener.Stop();
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre(opened(), opened(), "ATTACH", "close"));
    EXPECT_THAT(captured_log().lines(), IsEmpty());
}

TEST_F(ReplacedDaemon, OneThatIsReplacedWhileItIsConnectedToIsTakenForTheOldOne)
{
    const auto before = socket_file(folder.file("wlan0"));
    ScriptedWpaCtrl::onOpen = [this] { replace(); };
    EXPECT_EQ(connect_control_socket(folder.file("wlan0")).file, before);
}

TEST_F(ReplacedDaemon, ASuccessorIsFollowedFromItsConnectionToTheEndOfTheThread)
{
    listener.Start();
    ASSERT_TRUE(ScriptedWpaCtrl::wait_for_selects(1));
    EXPECT_FALSE(listener.follows_successor()); // of nobody
    listener.expect_successor();
    EXPECT_FALSE(listener.follows_successor());
    replace();
    listener.Restart();
    EXPECT_TRUE(listener.follows_successor());
    listener.Stop();
    EXPECT_FALSE(listener.follows_successor());
}

TEST_F(WpaSocketListenerTest, ManyStartsAndStopsLeaveNoDescriptorBehind)
{
    const auto openDescriptors = [] {
        const int next = dup(STDIN_FILENO);
        close(next);
        return next;
    };
    const int before = openDescriptors();
    for (int round = 0; round < 100; ++round) {
        listener.Restart();
        listener.Stop();
    }
    EXPECT_EQ(openDescriptors(), before);
}

// wpa_supplicant's listener

TEST_F(WpaSocketListenerTest, TheStationListenerUsesItsOwnFolderAndIgnoresEveryEvent)
{
    WpaSupplicantSocketListner station;
    station.Start();
    ScriptedWpaCtrl::send("<3>CTRL-EVENT-TERMINATING ");
    EXPECT_TRUE(captured_log().wait_for({LOG_INFO, "HostapdSocketListner::SignalEvent"}));
    station.Stop();
    EXPECT_THAT(captured_log().lines(), ElementsAre(received("<3>CTRL-EVENT-TERMINATING "),
                                                    line(LOG_INFO, "HostapdSocketListner::SignalEvent")));
    EXPECT_THAT(ScriptedWpaCtrl::noted(),
                ElementsAre("open /var/run/wpa_supplicant/wlan0", "ATTACH", "close"));
}

TEST_F(WpaSocketListenerTest, TheStationListenerIgnoresANullEvent)
{
    WpaSupplicantSocketListner station;
    station.SignalEvent(nullptr);
    EXPECT_THAT(captured_log().lines(), ElementsAre(line(LOG_INFO, "HostapdSocketListner::SignalEvent")));
}

TEST_F(WpaSocketListenerTest, TheStationConnectionIsOpenedInItsFolder)
{
    EXPECT_NE(WpaSupplicantSocketListner::ConnectSocket("wlan7"), nullptr);
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre("open /var/run/wpa_supplicant/wlan7", "close"));
}

} // namespace
