// The runtime around the stages: the ThreadPool (sizes, order, exceptions through the future, the stepped
// shutdown), TimeProfiler, the UTF-8 form of step names, and device selection through a scripted
// runtime (the fastest device, prohibited modes, the failure texts, the bounded retry of InitGPUCUDA).
#include <atomic>
#include <chrono>

#include "FakeDevices.h"
#include "TestSupport.h"
#include "common/ThreadPool.h"
#include "common/TimeProfiler.h"
#include "common/UninitialisedArray.h"
#include "device/DeviceSelection.h"

using namespace SurfaceReconstruction;
using namespace testing_support;

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

TEST(ThreadPool, APoolWithoutWorkersNeverRunsAndBreaksThePromise) {
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

TEST(ThreadPool, DestructionWaitsForTheRunningTask) {
    std::atomic<bool> finished{false}, started{false};
    {
        ThreadPool pool(2);
        pool.commit([&] {
            started = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            finished = true;
            return 0;
        });
        while (!started) std::this_thread::yield();
    }
    EXPECT_TRUE(finished);
}

// Workers stopped while they wait, while they take a task and while they run one: none misses the stop (a
// lost notification would leave the destructor waiting for ever).
TEST(ThreadPool, PoolsStoppedAtAnyMomentLetTheirWorkersGo) {
    std::atomic<int> ran{0};
    int waited = 0;
    for (int round = 0; round < 300; ++round) {
        ThreadPool pool(4);
        std::vector<std::future<int>> results;
        for (int t = 0; t < round % 5; ++t)
            results.push_back(pool.commit([&ran] {
                ++ran;
                return 0;
            }));
        // Every other round waits for its first task; the others are stopped with their tasks queued.
        if (!results.empty() && round % 2 == 0) waited += results.front().get() == 0 ? 1 : 0;
    }
    EXPECT_EQ(waited, 120);
    EXPECT_GE(ran.load(), waited);
}

// A working array kept for the next block gives back the pages beyond what that block will use: the
// process's resident memory falls, the elements kept stay as they were.
TEST(WorkingArrays, PagesBeyondWhatIsKeptGoBackToTheSystem) {
    const auto residentKiB = [] {
        std::ifstream status("/proc/self/status");
        std::string line;
        while (std::getline(status, line))
            if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
        return -1L;
    };
    UninitialisedArray<std::uint32_t> array(64u << 20 >> 2);  // 64 MiB
    for (std::size_t i = 0; i < array.size(); ++i) array[i] = static_cast<std::uint32_t>(i * 2654435761u);
    const long before = residentKiB();
    const std::size_t keep = array.size() / 4 + 123;
    releasePagesBeyond(array, keep);
    const long after = residentKiB();
    EXPECT_GT(before - after, 40 * 1024) << before << " -> " << after << " KiB";
    bool intact = true;
    for (std::size_t i = 0; i < keep; ++i) intact = intact && array[i] == static_cast<std::uint32_t>(i * 2654435761u);
    EXPECT_TRUE(intact);
    releasePagesBeyond(array, array.capacity());  // nothing beyond the storage: nothing happens
    EXPECT_EQ(array[keep - 1], static_cast<std::uint32_t>((keep - 1) * 2654435761u));
}

// Storage of a megabyte or more is mapped on its own, smaller storage comes from the heap: an array that
// grows, shrinks or swaps across that size keeps its elements, and each storage goes back the way it came
// (the sanitizer builds catch a mapping handed to the heap or the reverse).
TEST(WorkingArrays, ArraysKeepTheirElementsAcrossTheSizeThatIsMapped) {
    const std::size_t mapped = MAPPED_AT_LEAST / sizeof(std::uint64_t);
    const auto value = [](std::size_t i) { return static_cast<std::uint64_t>(i) * 0x9E3779B97F4A7C15ull; };
    const auto intact = [&](const UninitialisedArray<std::uint64_t>& array) {
        for (std::size_t i = 0; i < array.size(); ++i)
            if (array[i] != value(i)) return false;
        return true;
    };
    UninitialisedArray<std::uint64_t> grown;
    for (std::size_t i = 0; i < 3 * mapped; ++i) grown.push_back(value(i));  // heap, then mapped, twice larger
    EXPECT_TRUE(intact(grown));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(grown.data()) % 64, 0u);
    UninitialisedArray<std::uint64_t> small(100);
    for (std::size_t i = 0; i < small.size(); ++i) small[i] = value(i);
    small.swap(grown);
    EXPECT_TRUE(intact(small) && small.size() == 3 * mapped);
    EXPECT_TRUE(intact(grown) && grown.size() == 100);
    small.resize(mapped / 2);
    small.shrink_to_fit();  // mapped to heap
    EXPECT_TRUE(intact(small) && small.size() == mapped / 2);
    small.resize(mapped + 1);  // heap to mapped
    small.back() = value(mapped);
    EXPECT_EQ(small.size(), mapped + 1);
    for (std::size_t i = 0; i < mapped / 2; ++i) ASSERT_EQ(small[i], value(i));
    EXPECT_EQ(small.back(), value(mapped));
}

TEST(TimeProfiler, PrintsWhenAskedAndAStopWithoutStartEntersNothing) {
    TimeProfiler profiler;
    EXPECT_EQ(quiet([&] {
                  EXPECT_EQ(profiler.time_stop("x", true), 0.0);
                  EXPECT_EQ(profiler.time_stop("x", false), 0.0);  // still unknown: nothing was entered
              }),
              " time_stop error ( can not find x ) ! \n time_stop error ( can not find x ) ! \n");
    profiler.time_start("span");
    double first = -1, second = -1;
    const std::string out = quiet([&] { first = profiler.time_stop("span", true); });
    EXPECT_EQ(out.rfind(" span - elapsed time : ", 0), 0u);
    EXPECT_EQ(out.substr(out.size() - 5), " ms \n");
    // A further stop measures from the same start, and prints nothing unasked.
    EXPECT_TRUE(quiet([&] { second = profiler.time_stop("span", false); }).empty());
    EXPECT_GE(first, 0.0);
    EXPECT_GE(second, first);
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

TEST(GpuSelection, PicksLargestCoresTimesClockOfTheUsableDevicesLowestIndexOnTies) {
    const FakeDevice slow{0, 7, 5, 20, 1000000}, fast{0, 7, 5, 40, 1000000}, usable{0, 7, 5, 10, 1000000};
    const FakeDevice prohibited{DEVICE_COMPUTE_MODE_PROHIBITED, 8, 0, 100, 2000000};
    const struct {
        const char* name;
        std::vector<FakeDevice> devices;
        int id;
    } rows[] = {
        {"the fastest", {slow, fast, fast}, 1},
        {"the lowest index on ties", {fast, fast}, 0},
        // 6.1 has 128 cores a multiprocessor, 7.0 only 64: fewer multiprocessors can still win.
        {"cores a multiprocessor by capability",
         {FakeDevice{0, 7, 0, 30, 1000000}, FakeDevice{0, 6, 1, 16, 1000000}},
         1},
        {"a prohibited device passed over", {prohibited, usable}, 1},
        {"all prohibited", {prohibited, prohibited}, -1},
    };
    for (const auto& row : rows) {
        FakeDevices fake(row.devices);
        std::string error;
        EXPECT_EQ(gpuGetMaxGflopsDeviceId(error), row.id) << row.name;
        if (row.id < 0) {
            EXPECT_EQ(error, "gpuGetMaxGflopsDeviceId() CUDA error: all devices have compute mode prohibited.");
        }
    }
}

TEST(GpuSelection, FailedQueryIsReportedAndSelectionGoesOn) {
    FakeDevices fake({FakeDevice{}});
    fake.attribute_result = DEVICE_ERROR_INVALID_DEVICE;
    std::string error;
    // Every attribute keeps its former value: mode -1, capability 0.0, no multiprocessors.
    const std::string err = quietErr([&] { quiet([&] { EXPECT_EQ(gpuGetMaxGflopsDeviceId(error), 0); }); });
    EXPECT_TRUE(contains(err, "code=101(cudaErrorInvalidDevice)"));
    EXPECT_FALSE(gpuDeviceInit(0, error));
    EXPECT_EQ(error, "gpuDeviceInit(): GPU device does not support CUDA.");
}

TEST(GpuSelection, DeviceInitRefusesBadIndexProhibitedAndPreCudaDevices) {
    FakeDevices fake(
        {FakeDevice{}, FakeDevice{DEVICE_COMPUTE_MODE_PROHIBITED, 7, 5, 10, 1}, FakeDevice{0, 0, 9, 10, 1}});
    std::string error;
    EXPECT_FALSE(gpuDeviceInit(3, error));
    EXPECT_EQ(error, "gpuDeviceInit() CUDA error: invalid devID.");
    EXPECT_FALSE(gpuDeviceInit(1, error));
    EXPECT_EQ(error, "Error: device is running in <Compute Mode Prohibited>, no threads can use cudaSetDevice().");
    EXPECT_FALSE(gpuDeviceInit(2, error));
    EXPECT_EQ(error, "gpuDeviceInit(): GPU device does not support CUDA.");
    EXPECT_EQ(fake.set_device_calls, 0);
    EXPECT_TRUE(gpuDeviceInit(0, error));
    EXPECT_EQ(fake.last_set_device, 0);
}

TEST(GpuSelection, InitGpuSelectsTheBestDevice) {  // without one: EngineLifeCycle.InitWithoutUsableDevice...
    FakeDevices fake({FakeDevice{0, 7, 5, 10, 1000000}, FakeDevice{0, 7, 5, 80, 1000000}});
    std::string message;
    EXPECT_EQ(InitGPUCUDA(message), 0);
    EXPECT_EQ(message, "sucess");
    EXPECT_EQ(fake.last_set_device, 1);
}
