#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/DispatchQueue.h"

namespace morvane::platform {
namespace {

using namespace std::chrono_literals;

TEST(DispatchQueueTest, SerialQueueRunsOneBlockAtATimeInOrder) {
    auto queue = DispatchQueue::create("test.serial");
    std::vector<int> order;
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    for (int i = 0; i < 200; ++i) {
        queue->async([&, i] {
            if (inside.fetch_add(1) != 0) {
                overlapped = true;
            }
            order.push_back(i);
            inside.fetch_sub(1);
        });
    }
    queue->waitUntilIdle();
    EXPECT_FALSE(overlapped);
    ASSERT_EQ(order.size(), 200u);
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(order[i], i);
    }
}

TEST(DispatchQueueTest, ConcurrentQueueRunsBlocksSideBySide) {
    auto queue = DispatchQueue::create("test.concurrent", DispatchQueue::Kind::concurrent);
    // Each block waits for all the others: this only finishes when they run at once.
    std::latch together(4);
    for (int i = 0; i < 4; ++i) {
        queue->async([&] { together.arrive_and_wait(); });
    }
    queue->waitUntilIdle();
    SUCCEED();
}

TEST(DispatchQueueTest, BarrierWaitsForEarlierBlocksAndHoldsBackLaterOnes) {
    auto queue = DispatchQueue::create("test.barrier", DispatchQueue::Kind::concurrent);
    std::mutex mutex;
    std::vector<std::string> events;
    auto record = [&](std::string event) {
        std::lock_guard lock(mutex);
        events.push_back(std::move(event));
    };
    std::atomic<int> running{0};
    std::atomic<bool> barrierSawOthers{false};
    for (int i = 0; i < 3; ++i) {
        queue->async([&] {
            running.fetch_add(1);
            std::this_thread::sleep_for(20ms);
            record("before");
            running.fetch_sub(1);
        });
    }
    queue->asyncBarrier([&] {
        if (running.load() != 0) {
            barrierSawOthers = true;
        }
        record("barrier");
        std::this_thread::sleep_for(20ms);
        record("barrier-end");
    });
    for (int i = 0; i < 3; ++i) {
        queue->async([&] { record("after"); });
    }
    queue->waitUntilIdle();
    EXPECT_FALSE(barrierSawOthers);
    ASSERT_EQ(events.size(), 8u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(events[i], "before");
    }
    EXPECT_EQ(events[3], "barrier");
    EXPECT_EQ(events[4], "barrier-end");
    for (int i = 5; i < 8; ++i) {
        EXPECT_EQ(events[i], "after");
    }
}

TEST(DispatchQueueTest, SyncWaitsForTheBlockAndLabelsItsThread) {
    auto queue = DispatchQueue::create("ChangeObserver.queue", DispatchQueue::Kind::concurrent);
    std::string seen;
    queue->sync([&] { seen = DispatchQueue::currentLabel(); });
    EXPECT_EQ(seen, "ChangeObserver.queue");
    EXPECT_EQ(DispatchQueue::currentLabel(), "");
    int value = 0;
    queue->barrierSync([&] { value = 7; });
    EXPECT_EQ(value, 7);
}

TEST(DispatchQueueTest, BlocksWaitingOnEachOtherDoNotStarveThePool) {
    // More blocked blocks than a fixed pool would have threads: the pool has to grow.
    auto queue = DispatchQueue::create("test.many", DispatchQueue::Kind::concurrent);
    constexpr int kBlocks = 24;
    std::latch all(kBlocks);
    for (int i = 0; i < kBlocks; ++i) {
        queue->async([&] { all.arrive_and_wait(); });
    }
    queue->waitUntilIdle();
    SUCCEED();
}

TEST(DispatchQueueTest, AQueueLetGoWithBlocksPendingStillRunsThem) {
    std::atomic<int> ran{0};
    std::latch done(1);
    {
        auto queue = DispatchQueue::create("test.orphan");
        queue->async([&] {
            std::this_thread::sleep_for(10ms);
            ++ran;
        });
        queue->async([&] {
            ++ran;
            done.count_down();
        });
    }
    done.wait();
    EXPECT_EQ(ran.load(), 2);
}

TEST(DispatchQueueTest, AnExceptionInABlockDoesNotStopTheQueue) {
    auto queue = DispatchQueue::create("test.throwing");
    bool ranAfter = false;
    queue->async([] { throw std::runtime_error("boom"); });
    queue->async([&] { ranAfter = true; });
    queue->waitUntilIdle();
    EXPECT_TRUE(ranAfter);
    // A waiting caller gets the exception instead of waiting for ever.
    EXPECT_THROW(queue->sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
}

}  // namespace
}  // namespace morvane::platform
