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

#include <poll.h>
#include <syslog.h>

#include "listeners/wpa_supplicant_socket_listener.hpp"
#include "support/captured_log.hpp"
#include "support/scripted_wpa_ctrl.hpp"
#include "support/temp_folder.hpp"

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::captured_log;
using testing_support::LogLine;
using testing_support::ScriptedWpaCtrl;
using testing_support::TempFolder;

namespace {

LogLine line(int priority, const std::string& text)
{
    return {priority, text};
}

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

TEST_F(WpaSocketListenerTest, start_opens_attaches_and_hands_over_events)
{
    listener.Start();
    ScriptedWpaCtrl::send("<3>one");
    EXPECT_THAT(listener.events(1), ElementsAre("<3>one"));
    listener.Stop();
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre(kOpened, "ATTACH", "close"));
    EXPECT_THAT(captured_log().lines(), ElementsAre(received("<3>one")));
}

TEST_F(WpaSocketListenerTest, waits_a_second_twice_for_an_absent_socket_and_tries_all_the_same)
{
    EXPECT_EQ(open_control_socket(kDirectory, "wlan0").get(), &ScriptedWpaCtrl::connection);
    ASSERT_EQ(ScriptedWpaCtrl::sleeps.size(), 2U);
    for (const timespec& sleep : ScriptedWpaCtrl::sleeps) {
        EXPECT_EQ(sleep.tv_sec, 1);
        EXPECT_EQ(sleep.tv_nsec, 0);
    }
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre(kOpened, "close"));
}

TEST_F(WpaSocketListenerTest, does_not_wait_for_a_socket_that_is_there)
{
    open_control_socket("/", "tmp");
    EXPECT_TRUE(ScriptedWpaCtrl::sleeps.empty());
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre("open //tmp", "close"));
}

TEST_F(WpaSocketListenerTest, without_a_connection_the_thread_ends_and_the_next_start_tries_again)
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

TEST_F(WpaSocketListenerTest, an_attachment_that_is_refused_or_not_answered_ends_the_thread)
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

TEST_F(WpaSocketListenerTest, a_negative_descriptor_ends_the_thread)
{
    ScriptedWpaCtrl::descriptor = -1;
    listener.Start();
    EXPECT_TRUE(captured_log().wait_for({LOG_ERR, "ListenTask: Failed to get a valid fd - cannot listen."}));
    listener.Stop();
    EXPECT_EQ(captured_log().lines().size(), 1U);
    EXPECT_TRUE(ScriptedWpaCtrl::selectTimeouts.empty());
}

// Waiting

TEST_F(WpaSocketListenerTest, waits_one_second_anew_each_time)
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

TEST_F(WpaSocketListenerTest, a_failing_wait_ends_the_thread)
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

TEST_F(WpaSocketListenerTest, a_descriptor_that_no_set_can_hold_ends_the_thread_instead_of_damaging_memory)
{
    ScriptedWpaCtrl::descriptor = FD_SETSIZE;
    listener.Start();
    EXPECT_TRUE(captured_log().wait_for(kSelectFailed));
    listener.Stop();
    EXPECT_TRUE(ScriptedWpaCtrl::selectTimeouts.empty());
}

TEST_F(WpaSocketListenerTest, an_interrupted_wait_is_no_failure)
{
    ScriptedWpaCtrl::interruptedSelects = 3;
    listener.Start();
    ScriptedWpaCtrl::send("event");
    EXPECT_THAT(listener.events(1), ElementsAre("event"));
    listener.Stop();
    EXPECT_THAT(captured_log().lines(), ElementsAre(received("event")));
}

// Receiving

TEST_F(WpaSocketListenerTest, a_later_event_of_one_wake_up_is_cut_to_the_length_of_the_one_before)
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

TEST_F(WpaSocketListenerTest, an_empty_event_cuts_the_rest_of_its_wake_up_to_nothing)
{
    ScriptedWpaCtrl::send("");
    ScriptedWpaCtrl::send("<3>event");
    listener.Start();
    EXPECT_THAT(listener.events(2), ElementsAre("", ""));
    listener.Stop();
    EXPECT_THAT(captured_log().lines(), ElementsAre(received(""), received("")));
}

TEST_F(WpaSocketListenerTest, an_event_has_at_most_4095_bytes)
{
    ScriptedWpaCtrl::send(std::string(5000, 'e'));
    listener.Start();
    EXPECT_THAT(listener.events(1), ElementsAre(std::string(4095, 'e')));
}

TEST_F(WpaSocketListenerTest, nothing_of_a_longer_event_shows_behind_a_shorter_one)
{
    ScriptedWpaCtrl::send("<3>long event");
    ScriptedWpaCtrl::send("<3>e");
    listener.Start();
    EXPECT_THAT(listener.events(2), ElementsAre("<3>long event", "<3>e"));
}

TEST_F(WpaSocketListenerTest, a_failing_receive_is_passed_over)
{
    ScriptedWpaCtrl::failingReceives = 5;
    ScriptedWpaCtrl::send("event");
    listener.Start();
    EXPECT_THAT(listener.events(1), ElementsAre("event"));
    listener.Stop();
    EXPECT_THAT(captured_log().lines(), ElementsAre(received("event")));
}

TEST_F(WpaSocketListenerTest, bytes_that_are_no_text_pass_through)
{
    ScriptedWpaCtrl::send("\xff\xfe %s %n");
    listener.Start();
    EXPECT_THAT(listener.events(1), ElementsAre("\xff\xfe %s %n"));
    listener.Stop();
    EXPECT_THAT(captured_log().lines(), ElementsAre(received("\xff\xfe %s %n")));
}

// Stopping and starting again

TEST_F(WpaSocketListenerTest, stop_ends_a_wait_at_once_and_closes_the_connection)
{
    listener.Start();
    ScriptedWpaCtrl::send("event");
    listener.events(1);
    const auto before = std::chrono::steady_clock::now();
    listener.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(30)); // the wait lasts 60
    EXPECT_EQ(ScriptedWpaCtrl::noted().back(), "close");
}

TEST_F(WpaSocketListenerTest, stop_is_harmless_without_a_thread_and_a_second_time)
{
    listener.Stop();
    EXPECT_THAT(ScriptedWpaCtrl::noted(), IsEmpty());
    listener.Start();
    listener.Stop();
    listener.Stop();
    const std::vector<std::string> calls = ScriptedWpaCtrl::noted();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "close"), 1);
}

TEST_F(WpaSocketListenerTest, stop_returns_although_asking_for_pending_events_fails)
{
    ScriptedWpaCtrl::send("event");
    listener.onEvent = [] { ScriptedWpaCtrl::pendingErrors = true; };
    listener.Start();
    listener.events(1);
    auto stopped = std::async(std::launch::async, [this] { listener.Stop(); });
    ASSERT_EQ(stopped.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_THAT(captured_log().lines(), ElementsAre(received("event")));
}

TEST_F(WpaSocketListenerTest, an_error_counts_as_pending_and_the_events_after_it_are_received)
{
    ScriptedWpaCtrl::pendingErrors = true;
    ScriptedWpaCtrl::send("one");
    ScriptedWpaCtrl::send("two");
    listener.Start();
    EXPECT_THAT(listener.events(2), ElementsAre("one", "two"));
}

TEST_F(WpaSocketListenerTest, start_while_running_ends_the_thread_and_attaches_anew_over_the_same_connection)
{
    listener.Start();
    ScriptedWpaCtrl::send("one");
    listener.events(1);
    listener.Start();
    ScriptedWpaCtrl::send("two");
    EXPECT_THAT(listener.events(2), ElementsAre("one", "two"));
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre(kOpened, "ATTACH", "ATTACH"));
}

TEST_F(WpaSocketListenerTest, restart_opens_a_new_connection)
{
    listener.Start();
    ScriptedWpaCtrl::send("one");
    listener.events(1);
    listener.Restart();
    ScriptedWpaCtrl::send("two");
    listener.events(2);
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre(kOpened, "ATTACH", "close", kOpened, "ATTACH"));
}

TEST_F(WpaSocketListenerTest, restart_lets_the_socket_of_before_go_away_first)
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

TEST_F(WpaSocketListenerTest, restart_waits_no_longer_than_a_second_for_a_socket_that_stays)
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

TEST_F(WpaSocketListenerTest, successor_that_is_there_already_is_not_waited_for)
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

TEST_F(ReplacedDaemon, restart_hands_over_what_the_old_one_says_until_its_socket_is_replaced)
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

TEST_F(ReplacedDaemon, restart_hands_over_what_has_arrived_when_the_thread_comes_back_from_an_event)
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
    for (const char* event :
         {"<3>AP-STA-DISCONNECTED 02:00:00:00:00:01", "<3>AP-DISABLED ", "<3>CTRL-EVENT-T"}) {
        ScriptedWpaCtrl::send(event);
    }
    replace();
    auto restarted = std::async(std::launch::async, [this] { listener.Restart(); });
    // The thread finds itself stopped when its slot returns.
    EXPECT_EQ(restarted.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    replaced.set_value();
    restarted.get();
    EXPECT_THAT(listener.events(4), ElementsAre("<3>one", "<3>AP-STA-DISCONNECTED 02:00:00:00:00:01",
                                                "<3>AP-DISABLED ", "<3>CTRL-EVENT-T"));
}

TEST_F(ReplacedDaemon, restart_returns_although_the_old_one_goes_on_talking)
{
    listener.onEvent = [] { ScriptedWpaCtrl::send("<3>again"); };
    listener.Start();
    ScriptedWpaCtrl::send("<3>first");
    listener.events(10);
    auto restarted = std::async(std::launch::async, [this] { listener.Restart(); });
    EXPECT_EQ(restarted.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(ScriptedWpaCtrl::sleeps.size(), 100U); // its socket has stayed
}

TEST_F(ReplacedDaemon, stop_hands_over_nothing_more)
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

TEST_F(ReplacedDaemon, an_attachment_that_fails_is_made_once_more_to_the_new_one)
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

TEST_F(ReplacedDaemon, a_new_one_that_is_not_there_yet_is_waited_for)
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

TEST_F(ReplacedDaemon, a_new_one_that_does_not_come_is_reported)
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

TEST_F(ReplacedDaemon, an_attachment_to_one_that_is_replaced_already_is_made_to_the_new_one)
{
    ScriptedWpaCtrl::whileAttaching = [this](const ControlWait&) {
        if (std::filesystem::exists(folder.file("next"))) {
            replace();
            ScriptedWpaCtrl::send("the old one's last word");
        }
    };
    listener.Start();
    EXPECT_THAT(listener.events(1), ElementsAre("the old one's last word"));
    ASSERT_TRUE(ScriptedWpaCtrl::wait_for_selects(1));
    listener.Stop();
    EXPECT_THAT(ScriptedWpaCtrl::noted(),
                ElementsAre(opened(), "ATTACH", "close", opened(), "ATTACH", "close"));
}

TEST_F(ReplacedDaemon, waiting_for_the_answer_is_given_up_for_a_new_one_and_for_a_stop_and_for_nothing_else)
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
    listener.Stop();
    EXPECT_TRUE(stopped.get_future().get());
    EXPECT_THAT(captured_log().lines(), IsEmpty()); // it was not refused
    EXPECT_EQ(ScriptedWpaCtrl::noted().back(), "close");
}

TEST_F(ReplacedDaemon, events_that_come_before_the_answer_are_handed_over_in_order)
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

TEST_F(ReplacedDaemon, one_that_was_replaced_before_it_could_be_connected_to_is_not_the_end)
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

TEST_F(WpaSocketListenerTest, many_starts_and_stops_leave_no_descriptor_behind)
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

TEST_F(WpaSocketListenerTest, the_station_listener_uses_its_own_folder_and_ignores_every_event)
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

TEST_F(WpaSocketListenerTest, the_station_listener_ignores_a_null_event)
{
    WpaSupplicantSocketListner station;
    station.SignalEvent(nullptr);
    EXPECT_THAT(captured_log().lines(), ElementsAre(line(LOG_INFO, "HostapdSocketListner::SignalEvent")));
}

TEST_F(WpaSocketListenerTest, the_station_connection_is_opened_in_its_folder)
{
    EXPECT_NE(WpaSupplicantSocketListner::ConnectSocket("wlan7"), nullptr);
    EXPECT_THAT(ScriptedWpaCtrl::noted(), ElementsAre("open /var/run/wpa_supplicant/wlan7", "close"));
}

} // namespace
