// ThreadPool: sizes, order, exceptions through the future and the stepped shutdown; TimeProfiler and
// the UTF-8 form of step names.
#include <atomic>
#include <chrono>

#include "TestSupport.h"
#include "ThreadPool.h"
#include "TimeProfiler.h"

using namespace SurfaceReconstruction;
using testing_support::quiet;
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
    try {
        failing.get();
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "task failed");
    }
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
        ADD_FAILURE() << "a dropped task must report a broken promise";
    } catch (const std::future_error& e) {
        EXPECT_EQ(e.code(), std::future_errc::broken_promise);
    }
}

TEST(ThreadPool, ShutdownMovesInStepsOfTwoHundredMilliseconds) {
    auto start = Clock::now();
    { ThreadPool idle(4); }
    const long long idle_ms = msSince(start);
    EXPECT_GE(idle_ms, 200);
    EXPECT_LT(idle_ms, 2000);

    std::atomic<bool> finished{false}, started{false};
    auto pool = std::make_unique<ThreadPool>(2);
    pool->commit([&] {
        started = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        finished = true;
        return 0;
    });
    while (!started) std::this_thread::yield();
    start = Clock::now();
    pool.reset();
    const long long busy_ms = msSince(start);
    EXPECT_TRUE(finished);    // the destructor waited for the running task
    EXPECT_GE(busy_ms, 400);  // the next 200 ms step after the task's end
}

TEST(TimeProfiler, StopWithoutStartPrintsTheErrorLineAndEntersNothing) {
    TimeProfiler profiler;
    EXPECT_EQ(quiet([&] {
                  EXPECT_EQ(profiler.time_stop("x", true), 0.0);
                  EXPECT_EQ(profiler.time_stop("x", false), 0.0);  // still unknown: nothing was entered
              }),
              " time_stop error ( can not find x ) ! \n time_stop error ( can not find x ) ! \n");
}

TEST(TimeProfiler, SpanRunsFromTheLastStartAndPrintsWhenAsked) {
    TimeProfiler profiler;
    profiler.time_start("span");
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    profiler.time_start("span");  // restart
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    double first = 0, second = 0;
    const std::string out = quiet([&] { first = profiler.time_stop("span", true); });
    EXPECT_GE(first, 19.0);
    EXPECT_LT(first, 120.0);
    EXPECT_EQ(out.rfind(" span - elapsed time : ", 0), 0u);
    EXPECT_EQ(out.substr(out.size() - 5), " ms \n");
    // A further stop measures from the same start.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(quiet([&] { second = profiler.time_stop("span", false); }).empty());
    EXPECT_GT(second, first);
}

TEST(StepNames, WideTextBecomesUtf8) {
    const std::pair<std::wstring, std::string> table[] = {
        {L"abc", "abc"},
        {L"\u878d\u5408\u6570\u636e", "\xe8\x9e\x8d\xe5\x90\x88\xe6\x95\xb0\xe6\x8d\xae"},
        {L"\u00e9", "\xc3\xa9"},
        {std::wstring(1, static_cast<wchar_t>(0x1F600)), "\xf0\x9f\x98\x80"},
        {std::wstring(1, static_cast<wchar_t>(0xD800)), "\xef\xbf\xbd"},  // a lone surrogate
    };
    for (const auto& [wide, utf8] : table) EXPECT_EQ(toUtf8(wide), utf8) << utf8;
}
