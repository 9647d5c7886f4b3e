#include "core/main_loop.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <vector>

#include <sys/resource.h>

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
                queue.post([this, number] { note(number); });
            }
        }).join();
    }

    void note(int number)
    {
        EXPECT_EQ(std::this_thread::get_id(), loopThread);
        done.push_back(number);
    }

    testing_support::EventLoop loop;
    MainLoopQueue queue;
    std::thread::id loopThread = std::this_thread::get_id();
    std::vector<int> done;
};

} // namespace

TEST_F(MainLoop, RunsWorkOfItsOwnThreadAtOnce)
{
    ASSERT_GE(queue.attach(loop.get()), 0);
    queue.post([this] { note(1); });
    EXPECT_THAT(done, ElementsAre(1));
}

TEST_F(MainLoop, RunsWorkOfOtherThreadsInOrderOnTheLoopsThread)
{
    ASSERT_GE(queue.attach(loop.get()), 0);
    post_from_another_thread(1, 3);
    EXPECT_THAT(done, IsEmpty());
    ASSERT_TRUE(loop.run_until([this] { return done.size() == 3; }));
    EXPECT_THAT(done, ElementsAre(1, 2, 3));
}

TEST_F(MainLoop, RunsOnePieceOfWorkInEachIteration)
{
    constexpr uint64_t kDeadlineUsec = 20'000'000;

    ASSERT_GE(queue.attach(loop.get()), 0);
    post_from_another_thread(1, 3);
    EXPECT_GT(sd_event_run(loop.get(), kDeadlineUsec), 0);
    EXPECT_THAT(done, ElementsAre(1));
    EXPECT_GT(sd_event_run(loop.get(), kDeadlineUsec), 0);
    EXPECT_THAT(done, ElementsAre(1, 2));
    EXPECT_GT(sd_event_run(loop.get(), kDeadlineUsec), 0);
    EXPECT_THAT(done, ElementsAre(1, 2, 3));
    EXPECT_EQ(sd_event_run(loop.get(), 0), 0);
}

TEST_F(MainLoop, RunsWhatWasPostedBeforeItWasServed)
{
    post_from_another_thread(1, 2);
    ASSERT_GE(queue.attach(loop.get()), 0);
    ASSERT_TRUE(loop.run_until([this] { return done.size() == 2; }));
    EXPECT_THAT(done, ElementsAre(1, 2));
}

TEST_F(MainLoop, WorkMayPostFurtherWork)
{
    ASSERT_GE(queue.attach(loop.get()), 0);
    std::thread([this] {
        queue.post([this] {
            note(1);
            queue.post([this] { note(2); });
            post_from_another_thread(3, 1);
        });
    }).join();
    ASSERT_TRUE(loop.run_until([this] { return done.size() == 3; }));
    EXPECT_THAT(done, ElementsAre(1, 2, 3));
}

TEST_F(MainLoop, LosesNothingOfManyThreads)
{
    constexpr int kThreads = 4;
    constexpr int kEach = 2000;

    ASSERT_GE(queue.attach(loop.get()), 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([this] {
            for (int number = 0; number < kEach; ++number) {
                queue.post([this, number] { note(number); });
            }
        });
    }
    const bool all = loop.run_until([this] { return done.size() == size_t{kThreads} * kEach; });
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(all);
}

TEST_F(MainLoop, DropsWhatIsLeftWhenItIsDetached)
{
    ASSERT_GE(queue.attach(loop.get()), 0);
    post_from_another_thread(1, 1);
    queue.detach();
    EXPECT_EQ(sd_event_run(loop.get(), 0), 0);
    ASSERT_GE(queue.attach(loop.get()), 0);
    EXPECT_GT(sd_event_run(loop.get(), 0), 0) << "it was woken for what there is no more";
    EXPECT_THAT(done, IsEmpty());
}

TEST_F(MainLoop, SaysWhyItCanNotBeServed)
{
    EXPECT_EQ(queue.attach(nullptr), -EINVAL);

    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{.rlim_cur = 0, .rlim_max = before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    MainLoopQueue withoutDescriptor;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(withoutDescriptor.attach(loop.get()), -EMFILE);
}
