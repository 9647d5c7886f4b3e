#include "utils/guarded_signal.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using testing::ElementsAre;

namespace {

TEST(GuardedSignal, CallsItsSlotsInTheOrderInWhichTheyWereConnected)
{
    GuardedSignal<std::string, int> signal;
    std::vector<std::string> calls;
    signal.connect(
        [&](const std::string& text, int number) { calls.push_back("a " + text + std::to_string(number)); });
    signal.connect(
        [&](const std::string& text, int number) { calls.push_back("b " + text + std::to_string(number)); });
    signal.emit("x", 1);
    signal.emit("y", 2);
    EXPECT_THAT(calls, ElementsAre("a x1", "b x1", "a y2", "b y2"));
}

TEST(GuardedSignal, WithoutSlotsDoesNothing)
{
    const GuardedSignal<> signal;
    signal.emit();
}

TEST(GuardedSignal, ASlotConnectedByASlotIsCalledFromTheNextEmissionOn)
{
    GuardedSignal<> signal;
    int late = 0;
    int connected = 0;
    signal.connect([&] {
        if (++connected == 1) {
            signal.connect([&] { ++late; });
        }
    });
    signal.emit();
    EXPECT_EQ(late, 0);
    signal.emit();
    EXPECT_EQ(late, 1);
}

TEST(GuardedSignal, ASlotThatTakesItsTimeDoesNotHoldUpThoseWhoConnect)
{
    GuardedSignal<> signal;
    std::atomic<bool> inSlot = false;
    std::atomic<bool> connected = false;
    signal.connect([&] {
        inSlot = true;
        inSlot.notify_all();
        connected.wait(false);
    });
    std::thread emitting([&] { signal.emit(); });
    inSlot.wait(false);
    signal.connect([] {}); // would never return if the emission held the lock
    connected = true;
    connected.notify_all();
    emitting.join();
}

TEST(GuardedSignal, MayBeConnectedToWhileAnotherThreadEmits)
{
    constexpr int kSlots = 500;
    GuardedSignal<int> signal;
    std::atomic<int> calls = 0;
    std::atomic<bool> done = false;
    std::thread emitting([&] {
        while (!done) {
            signal.emit(1);
        }
    });
    for (int slot = 0; slot < kSlots; ++slot) {
        signal.connect([&](int) { ++calls; });
    }
    done = true;
    emitting.join();
    calls = 0;
    signal.emit(1);
    EXPECT_EQ(calls, kSlots);
}

} // namespace
