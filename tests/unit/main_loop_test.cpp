#include "core/main_loop.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "support/event_loop.hpp"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class MainLoop : public testing::Test
{
protected:
    void post_from_another_thread(int first, int count)
    {
        std::thread([this, first, count] {
            for (int number = first; number < first + count; ++number) {
                queue_.post([this, number] { note(number); });
            }
        }).join();
    }

    void note(int number)
    {
        EXPECT_EQ(std::this_thread::get_id(), loopThread_);
        done_.push_back(number);
    }

    testing_support::EventLoop loop_;
    MainLoopQueue queue_;
    std::thread::id loopThread_ = std::this_thread::get_id();
    std::vector<int> done_;
};

} // namespace

TEST_F(MainLoop, RunsWorkOfItsOwnThreadAtOnce)
{
    ASSERT_GE(queue_.attach(loop_.get()), 0);
    queue_.post([this] { note(1); });
    EXPECT_THAT(done_, ElementsAre(1));
}

TEST_F(MainLoop, RunsWorkOfOtherThreadsInOrderOnTheLoopsThread)
{
    ASSERT_GE(queue_.attach(loop_.get()), 0);
    post_from_another_thread(1, 3);
    EXPECT_THAT(done_, IsEmpty());
    ASSERT_TRUE(loop_.run_until([this] { return done_.size() == 3; }));
    EXPECT_THAT(done_, ElementsAre(1, 2, 3));
}

TEST_F(MainLoop, RunsOnePieceOfWorkInEachIteration)
{
    constexpr uint64_t kDeadlineUsec = 20'000'000;

    ASSERT_GE(queue_.attach(loop_.get()), 0);
    post_from_another_thread(1, 3);
    EXPECT_GT(sd_event_run(loop_.get(), kDeadlineUsec), 0);
    EXPECT_THAT(done_, ElementsAre(1));
    EXPECT_GT(sd_event_run(loop_.get(), kDeadlineUsec), 0);
    EXPECT_THAT(done_, ElementsAre(1, 2));
    EXPECT_GT(sd_event_run(loop_.get(), kDeadlineUsec), 0);
    EXPECT_THAT(done_, ElementsAre(1, 2, 3));
    EXPECT_EQ(sd_event_run(loop_.get(), 0), 0);
}

TEST_F(MainLoop, RunsWhatWasPostedBeforeItWasServed)
{
    post_from_another_thread(1, 2);
    ASSERT_GE(queue_.attach(loop_.get()), 0);
    ASSERT_TRUE(loop_.run_until([this] { return done_.size() == 2; }));
    EXPECT_THAT(done_, ElementsAre(1, 2));
}

TEST_F(MainLoop, WorkMayPostFurtherWork)
{
    ASSERT_GE(queue_.attach(loop_.get()), 0);
    std::thread([this] {
        queue_.post([this] {
            note(1);
            queue_.post([this] { note(2); });
            post_from_another_thread(3, 1);
        });
    }).join();
    ASSERT_TRUE(loop_.run_until([this] { return done_.size() == 3; }));
    EXPECT_THAT(done_, ElementsAre(1, 2, 3));
}

TEST_F(MainLoop, LosesNothingOfManyThreads)
{
    constexpr int kThreads = 4;
    constexpr int kEach = 2000;

    ASSERT_GE(queue_.attach(loop_.get()), 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([this] {
            for (int number = 0; number < kEach; ++number) {
                queue_.post([this, number] { note(number); });
            }
        });
    }
    const bool all = loop_.run_until([this] { return done_.size() == size_t{kThreads} * kEach; });
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(all);
}

TEST_F(MainLoop, DropsWhatIsLeftWhenItIsDetached)
{
    ASSERT_GE(queue_.attach(loop_.get()), 0);
    post_from_another_thread(1, 1);
    queue_.detach();
    EXPECT_EQ(sd_event_run(loop_.get(), 0), 0);
    EXPECT_THAT(done_, IsEmpty());
}
