// Device selection through a scripted runtime: the fastest device, prohibited modes, the core table,
// the failure texts, and the bounded retry of InitGPUCUDA.
#include <chrono>

#include "FakeDevices.h"
#include "TestSupport.h"
#include "helper_cuda.h"

using namespace SurfaceReconstruction;
using testing_support::FakeDevice;
using testing_support::FakeDevices;
using testing_support::quiet;
using testing_support::quietErr;

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
    EXPECT_NE(err.find("code=101(cudaErrorInvalidDevice)"), std::string::npos);
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

TEST(GpuSelection, InitGpuRetriesThreeTimesThenGivesUp) {
    FakeDevices fake(std::vector<FakeDevice>{});
    std::string message;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(InitGPUCUDA(message), 65793);
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(message, "gpuGetMaxGflopsDeviceId() CUDA error: no devices supporting CUDA.");
    EXPECT_GE(ms, 300);  // a 100 ms pause after each of the three failures
}

TEST(GpuSelection, InitGpuSelectsTheBestDevice) {
    FakeDevices fake({FakeDevice{0, 7, 5, 10, 1000000}, FakeDevice{0, 7, 5, 80, 1000000}});
    std::string message;
    EXPECT_EQ(InitGPUCUDA(message), 0);
    EXPECT_EQ(message, "sucess");
    EXPECT_EQ(fake.last_set_device, 1);
}

#if !defined(TESSALINE_CUDA)
TEST(GpuSelection, HostBackendPresentsOneUsableDevice) {
    int count = 0;
    ASSERT_EQ(deviceGetCount(&count), DEVICE_SUCCESS);
    EXPECT_EQ(count, 1);
    std::string message;
    EXPECT_EQ(InitGPUCUDA(message), 0);
    EXPECT_EQ(message, "sucess");
}
#endif
