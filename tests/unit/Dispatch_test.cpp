#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <future>
#include <thread>

#include "Dispatch/Internal/ManualScheduler.hpp"
#include "Dispatch/Internal/QueueConfinement.hpp"
#include "Dispatch/Internal/Scheduler.hpp"
#include "Dispatch/SerialQueue.hpp"

using namespace tavlo::dispatch;
using namespace std::chrono_literals;

namespace {

void drain(const std::shared_ptr<SerialQueue>& queue) {
    queue->sync([] {});
}

TEST(SerialQueue, RunsTasksOneAtATimeInSubmissionOrder) {
    auto queue = SerialQueue::create("test.order");
    std::vector<int> seen;
    std::atomic<int> running{0};
    bool overlapped = false;
    // Submitted from several threads; each thread's own tasks must keep their order.
    std::vector<std::thread> producers;
    for (int p = 0; p < 4; ++p) {
        producers.emplace_back([&, p] {
            for (int i = 0; i < 200; ++i) {
                queue->async([&, p, i] {
                    if (running.fetch_add(1) != 0) overlapped = true;
                    seen.push_back(p * 1000 + i);
                    running.fetch_sub(1);
                });
            }
        });
    }
    for (auto& producer : producers) producer.join();
    drain(queue);
    EXPECT_FALSE(overlapped);
    ASSERT_EQ(seen.size(), 800u);
    std::array<int, 4> last{-1, -1, -1, -1};
    for (int value : seen) {
        EXPECT_GT(value % 1000, last[value / 1000]);
        last[value / 1000] = value % 1000;
    }
}

TEST(SerialQueue, TargetedQueuesAreSerialWithTheirTarget) {
    auto parent = SerialQueue::create("test.parent");
    auto childA = SerialQueue::create("test.a", parent);
    auto childB = SerialQueue::create("test.b", parent);
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    auto task = [&] {
        if (running.fetch_add(1) != 0) overlapped = true;
        std::this_thread::sleep_for(50us);
        running.fetch_sub(1);
    };
    for (int i = 0; i < 100; ++i) {
        parent->async(task);
        childA->async(task);
        childB->async(task);
    }
    drain(childA);
    drain(childB);
    drain(parent);
    EXPECT_FALSE(overlapped);
}

TEST(SerialQueue, SyncRunsInlineWhenTheThreadAlreadyHoldsTheQueue) {
    auto parent = SerialQueue::create("test.parent");
    auto child = SerialQueue::create("test.child", parent);
    std::promise<bool> result;
    parent->async([&] {
        bool ranChild = false, ranParent = false;
        child->sync([&] { ranChild = child->isCurrent() && parent->isCurrent(); });
        parent->sync([&] { ranParent = true; });
        result.set_value(ranChild && ranParent);
    });
    auto future = result.get_future();
    ASSERT_EQ(future.wait_for(5s), std::future_status::ready) << "sync deadlocked";
    EXPECT_TRUE(future.get());
    EXPECT_FALSE(parent->isCurrent());
}

TEST(SerialQueue, ATaskThatThrowsDoesNotStopTheQueue) {
    auto queue = SerialQueue::create("test.throw");
    bool ranAfter = false;
    queue->async([] { throw std::runtime_error("application bug"); });
    queue->async([&] { ranAfter = true; });
    drain(queue);
    EXPECT_TRUE(ranAfter);
}

TEST(QueueConfinement, PassesOnTheQueueAndOnQueuesThatTargetIt) {
    auto queue = SerialQueue::create("confined");
    auto child = SerialQueue::create("child", queue);
    std::atomic<int> checked{0};
    queue->sync([&] {
        TAVLO_ASSERT_ON_QUEUE(queue);
        ++checked;
    });
    child->sync([&] {
        TAVLO_ASSERT_ON_QUEUE(queue);
        TAVLO_ASSERT_ON_QUEUE(*child);
        ++checked;
    });
    TAVLO_ASSERT_ON_QUEUE(std::shared_ptr<SerialQueue>());  // no queue: nothing to check
    EXPECT_EQ(checked, 2);
}

#ifndef NDEBUG
TEST(QueueConfinementDeathTest, AbortsAnywhereElseInDebugBuilds) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto queue = SerialQueue::create("confined");
    auto other = SerialQueue::create("other");
    auto child = SerialQueue::create("child", queue);
    EXPECT_DEATH(TAVLO_ASSERT_ON_QUEUE(queue), "must run on queue \"confined\"");
    EXPECT_DEATH(other->sync([&] { TAVLO_ASSERT_ON_QUEUE(queue); }), "confined");
    // The target runs, but not the queue that targets it.
    EXPECT_DEATH(queue->sync([&] { TAVLO_ASSERT_ON_QUEUE(child); }), "child");
}
#endif

TEST(ManualScheduler, RunsDueTasksInTimeOrderAndHonoursCancel) {
    ManualScheduler scheduler;
    auto queue = SerialQueue::create("test.manual");
    std::vector<int> ran;
    scheduler.after(2s, queue, [&] { ran.push_back(2); });
    scheduler.after(500ms, queue, [&] { ran.push_back(1); });
    auto cancelled = scheduler.after(1s, queue, [&] { ran.push_back(99); });
    cancelled->cancel();
    scheduler.advance(1999ms);
    drain(queue);
    EXPECT_EQ(ran, std::vector<int>{1});
    scheduler.advance(1ms);
    drain(queue);
    EXPECT_EQ(ran, (std::vector<int>{1, 2}));
    EXPECT_EQ(scheduler.pendingCount(), 0u);
}

TEST(TimerScheduler, ScaledDelaysKeepTheirOrder) {
    TimerScheduler scheduler(0.001);  // 32 s become 32 ms
    auto queue = SerialQueue::create("test.timer");
    std::vector<int> ran;
    std::promise<void> done;
    scheduler.after(32s, queue, [&] {
        ran.push_back(32);
        done.set_value();
    });
    scheduler.after(500ms, queue, [&] { ran.push_back(0); });
    scheduler.after(4s, queue, [&] { ran.push_back(4); })->cancel();
    ASSERT_EQ(done.get_future().wait_for(5s), std::future_status::ready);
    drain(queue);
    EXPECT_EQ(ran, (std::vector<int>{0, 32}));
}

}  // namespace
