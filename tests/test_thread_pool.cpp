// ThreadPool: sizes, order, exceptions through the future, and the stepped shutdown.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <vector>

#include "ThreadPool.h"

using namespace SurfaceReconstruction;
using Clock = std::chrono::steady_clock;

namespace {
long long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}
}  // namespace

TEST(ThreadPool, SizeIsCappedAtTwenty) {
    EXPECT_EQ(ThreadPool(12).threadCount(), 12u);
    EXPECT_EQ(ThreadPool(30).threadCount(), 20u);
    EXPECT_EQ(ThreadPool(0).threadCount(), 0u);
}

TEST(ThreadPool, OneWorkerRunsTasksInCommitOrder) {
    std::vector<int> order;
    std::vector<std::future<int>> results;
    {
        ThreadPool pool(1);
        for (int i = 0; i < 50; ++i) {
            results.push_back(pool.commit([&order, i] {
                order.push_back(i);  // a single worker: no two tasks overlap
                return i * 2;
            }));
        }
        for (int i = 0; i < 50; ++i) EXPECT_EQ(results[static_cast<std::size_t>(i)].get(), i * 2);
    }
    ASSERT_EQ(order.size(), 50u);
    for (int i = 0; i < 50; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
}

TEST(ThreadPool, ExceptionOfATaskComesOutOfGet) {
    ThreadPool pool(2);
    std::future<int> failing = pool.commit([]() -> int { throw std::runtime_error("task failed"); });
    std::future<int> fine = pool.commit([] { return 7; });
    EXPECT_THROW(
        {
            try {
                failing.get();
            } catch (const std::runtime_error& e) {
                EXPECT_STREQ(e.what(), "task failed");
                throw;
            }
        },
        std::runtime_error);
    EXPECT_EQ(fine.get(), 7);  // the worker survived
}

TEST(ThreadPool, PoolWithoutWorkersNeverRunsAndBreaksThePromise) {
    std::atomic<bool> ran{false};
    std::future<int> result;
    {
        ThreadPool pool(0);
        result = pool.commit([&ran] {
            ran = true;
            return 1;
        });
        EXPECT_EQ(result.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    }
    EXPECT_FALSE(ran);
    try {
        result.get();
        FAIL() << "a dropped task must report a broken promise";
    } catch (const std::future_error& e) {
        EXPECT_EQ(e.code(), std::future_errc::broken_promise);
    }
}

TEST(ThreadPool, ShutdownMovesInStepsOfTwoHundredMilliseconds) {
    {
        const auto start = Clock::now();
        { ThreadPool idle(4); }
        const long long ms = msSince(start);
        EXPECT_GE(ms, 200);
        EXPECT_LT(ms, 2000);
    }
    {
        std::atomic<bool> finished{false};
        std::atomic<bool> started{false};
        auto pool = std::make_unique<ThreadPool>(2);
        pool->commit([&] {
            started = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            finished = true;
            return 0;
        });
        while (!started) std::this_thread::yield();
        const auto start = Clock::now();
        pool.reset();
        const long long ms = msSince(start);
        EXPECT_TRUE(finished);  // the destructor waited for the running task
        EXPECT_GE(ms, 400);     // the next 200 ms step after the task's end
    }
}
