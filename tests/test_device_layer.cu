// The device layer: checked calls and their report, guarded release, the launch helper and the
// primitives whose host twin must behave as the device does.
#include <atomic>
#include <climits>

#include "FakeDevices.h"
#include "TestSupport.h"
#include "common/ErrorLadder.h"
#include "device/DeviceLayer.h"

using namespace SurfaceReconstruction;
using testing_support::FakeDevices;

#if defined(TESSALINE_CUDA)
namespace {
// Every test of the CUDA build runs the library on the device: where the machine has none, the suite
// skips rather than fails.
class RequireDevice : public ::testing::Environment {
public:
    void SetUp() override {
        int count = 0;
        if (deviceGetCount(&count) != DEVICE_SUCCESS || count == 0) {
            deviceGetLastError();  // the failed query leaves its error behind
            GTEST_SKIP() << "no CUDA device: the tests of the CUDA build skip";
        }
    }
};
::testing::Environment* const g_require_device = ::testing::AddGlobalTestEnvironment(new RequireDevice);
}  // namespace
#endif

TEST(DeviceLayer, CheckReportsFailuresOnStandardErrorOnlyAndThrows) {
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    EXPECT_TRUE(checkDeviceCall(DEVICE_SUCCESS, "cudaMemset(x, 0, 4)", "file.cu", 7));
    EXPECT_FALSE(checkDeviceCall(DEVICE_ERROR_MEMORY_ALLOCATION, "cudaMalloc(&p, 16)", "src/a.cu", 42));
    const std::string err = ::testing::internal::GetCapturedStderr();
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(err,
              std::string("CUDA error at src/a.cu:42 code=2(") + deviceErrorName(2) + ") \"cudaMalloc(&p, 16)\" \n");
    EXPECT_EQ(deviceErrorName(2), std::string("cudaErrorMemoryAllocation"));
    EXPECT_TRUE(out.empty());
    // A checked call that fails throws, after the same report.
    FakeDevices fake;
    fake.fail_malloc_at = 0;
    void* p = nullptr;
    ::testing::internal::CaptureStderr();
    EXPECT_THROW(TESSA_DEVICE_CHECK(deviceMalloc(&p, 64)), DeviceError);
    // The text is the call itself, as written.
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("\"deviceMalloc(&p, 64)\""), std::string::npos);
}

#if !defined(TESSALINE_CUDA)
// On the host backend device memory is the host's: an allocation the host refuses is memory run out, with
// its size and the memory status up the ladder, and nothing on standard error speaks of a device.
TEST(DeviceLayer, HostMemoryRefusedIsAMemoryFailureWithoutDeviceWords) {
    if (TESSALINE_TEST_SANITIZED) GTEST_SKIP() << "the sanitizers' allocator stops the process on such a size";
    const std::size_t huge = std::size_t{1} << 62;  // beyond any machine's address space
    void* p = nullptr;
    std::uint64_t refused = 0;
    std::string last_error;
    int status = 0;
    ::testing::internal::CaptureStderr();
    try {
        TESSA_DEVICE_CHECK(deviceMalloc(&p, huge));
    } catch (const OutOfMemory& e) {
        refused = e.bytes();
    }
    {
        const MemoryStageScope stage("[Test] stage", 0);
        status = runGuarded(last_error, {TESSALINE_DEVICE_COMPUTE, "device"}, {1, "other"}, [&]() -> int {
            TESSA_DEVICE_CHECK(deviceMalloc(&p, huge));
            return 0;
        });
    }
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(refused, huge);
    EXPECT_EQ(status, TESSALINE_OUT_OF_MEMORY);
    EXPECT_EQ(last_error,
              "[Test] stage ran out of memory: it wanted 4398046511104 MiB more; lower the resolution or "
              "raise the memory limit");
    EXPECT_EQ(err, "");  // a failure the seam plays stays a device's (CheckReportsFailuresOnStandardErrorOnlyAndThrows)
}
#endif

TEST(DeviceLayer, GuardedReleaseIsRepeatableAndKeepsPointerOnFailure) {
    FakeDevices fake;
    int* a = nullptr;
    int* b = nullptr;
    TESSA_DEVICE_CHECK(deviceMalloc(&a, 16));
    TESSA_DEVICE_CHECK(deviceMalloc(&b, 16));

    // The first free fails: the pointer stays, the member behind it is not reached.
    fake.fail_free_at = 0;
    ::testing::internal::CaptureStderr();
    const auto releaseAll = [&] {
        TESSA_DEVICE_RELEASE(a);
        TESSA_DEVICE_RELEASE(b);
    };
    EXPECT_THROW(releaseAll(), DeviceError);
    ::testing::internal::GetCapturedStderr();
    EXPECT_NE(a, nullptr);
    EXPECT_NE(b, nullptr);

    // A second attempt starts again at the first member still held.
    EXPECT_NO_THROW(releaseAll());
    EXPECT_EQ(a, nullptr);
    EXPECT_EQ(b, nullptr);
    const int frees = fake.free_calls;
    EXPECT_NO_THROW(releaseAll());  // nothing left: no further call
    EXPECT_EQ(fake.free_calls, frees);
}

namespace {
// Each item adds its index + 1 to its own slot and counts itself on a shared counter.
struct CountItemsKernel {
    int* slots;
    int* counter;
    TESSA_HD void operator()(std::size_t i) const {
        slots[i] += static_cast<int>(i) + 1;
        deviceAtomicAdd(counter, 1);
    }
};
}  // namespace

TEST(DeviceLayer, LaunchRunsEveryItemExactlyOnce) {
    for (std::size_t n :
         {std::size_t(0), std::size_t(1), std::size_t(383), std::size_t(384), std::size_t(385), std::size_t(100000)}) {
        int* slots = nullptr;
        int* counter = nullptr;
        TESSA_DEVICE_CHECK(deviceMalloc(&slots, (n + 1) * sizeof(int)));
        TESSA_DEVICE_CHECK(deviceMalloc(&counter, sizeof(int)));
        TESSA_DEVICE_CHECK(deviceMemset(slots, 0, (n + 1) * sizeof(int)));
        TESSA_DEVICE_CHECK(deviceMemset(counter, 0, sizeof(int)));
        launchKernel(n, CountItemsKernel{slots, counter});
        TESSA_DEVICE_CHECK(deviceSynchronize());

        std::vector<int> host(n + 1);
        int count = -1;
        TESSA_DEVICE_CHECK(deviceMemcpy(host.data(), slots, host.size() * sizeof(int), CopyKind::DeviceToHost));
        TESSA_DEVICE_CHECK(deviceMemcpy(&count, counter, sizeof(int), CopyKind::DeviceToHost));
        EXPECT_EQ(count, static_cast<int>(n)) << "n = " << n;
        for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(host[i], static_cast<int>(i) + 1) << "item " << i;
        EXPECT_EQ(host[n], 0) << "an item past n ran";
        TESSA_DEVICE_RELEASE(slots);
        TESSA_DEVICE_RELEASE(counter);
    }
}

TEST(DeviceLayer, FloatToIntSaturatesAndMapsNanToZero) {
    EXPECT_EQ(floatToIntSaturate(std::numeric_limits<float>::quiet_NaN()), 0);
    EXPECT_EQ(floatToIntSaturate(3.0e9f), INT_MAX);
    EXPECT_EQ(floatToIntSaturate(std::numeric_limits<float>::infinity()), INT_MAX);
    EXPECT_EQ(floatToIntSaturate(-3.0e9f), INT_MIN);
    EXPECT_EQ(floatToIntSaturate(-std::numeric_limits<float>::infinity()), INT_MIN);
    EXPECT_EQ(floatToIntSaturate(2147483520.0f), 2147483520);  // the largest float below 2^31
    EXPECT_EQ(floatToIntSaturate(-2.75f), -2);                 // toward zero
    EXPECT_EQ(floatToIntSaturate(2.75f), 2);
}
